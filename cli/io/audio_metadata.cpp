#include "audio_metadata.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "errors.h"

namespace kesta {

namespace {

constexpr const char* kKeptChunks[] = {"iXML", "axml"};

// SF_CUES holds a fixed number of points.
constexpr std::size_t kMostMarkers = sizeof(SF_CUES::cue_points) / sizeof(SF_CUE_POINT);

bool HoldsMarkers(int container) {
    return container == SF_FORMAT_WAV || container == SF_FORMAT_WAVEX || container == SF_FORMAT_AIFF;
}

std::string Le32(uint32_t value) {
    return {char(value & 0xFF), char(value >> 8 & 0xFF), char(value >> 16 & 0xFF), char(value >> 24 & 0xFF)};
}

bool WriteAt(int fd, off_t offset, const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t wrote = ::pwrite(fd, bytes.data() + done, bytes.size() - done, offset + off_t(done));
        if (wrote <= 0) return false;
        done += std::size_t(wrote);
    }
    return true;
}

}  // namespace

void ReadMarkersAndChunks(SNDFILE* file, AudioMetadata& metadata) {
    uint32_t count = 0;
    if (sf_command(file, SFC_GET_CUE_COUNT, &count, sizeof(count)) == SF_TRUE && count > 0) {
        auto cues = std::make_unique<SF_CUES>();
        if (sf_command(file, SFC_GET_CUE, cues.get(), sizeof(SF_CUES)) == SF_TRUE)
            for (uint32_t i = 0; i < std::min<uint32_t>(cues->cue_count, kMostMarkers); ++i) {
                const SF_CUE_POINT& cue = cues->cue_points[i];
                // The sample offset is where the marker stands in the audio (AIFF gives no position).
                metadata.markers.push_back({cue.sample_offset, uint32_t(cue.indx),
                                            std::string(cue.name, strnlen(cue.name, sizeof(cue.name)))});
            }
    }
    for (const char* id : kKeptChunks) {
        SF_CHUNK_INFO wanted{};
        std::strncpy(wanted.id, id, sizeof(wanted.id) - 1);
        wanted.id_size = unsigned(std::strlen(id));
        SF_CHUNK_ITERATOR* chunk = sf_get_chunk_iterator(file, &wanted);
        SF_CHUNK_INFO found{};
        if (chunk == nullptr || sf_get_chunk_size(chunk, &found) != SF_ERR_NO_ERROR || found.datalen == 0) continue;
        std::string data(found.datalen, '\0');
        found.data = data.data();
        if (sf_get_chunk_data(chunk, &found) == SF_ERR_NO_ERROR) metadata.chunks.emplace_back(id, std::move(data));
    }
}

std::vector<std::string> WriteMarkersAndChunks(SNDFILE* file, const AudioFormat& format, const std::string& path,
                                               const AudioMetadata& metadata) {
    std::vector<std::string> lost;
    if (!metadata.markers.empty()) {
        if (HoldsMarkers(format.Container())) {
            auto cues = std::make_unique<SF_CUES>();
            cues->cue_count = uint32_t(std::min(metadata.markers.size(), kMostMarkers));
            for (uint32_t i = 0; i < cues->cue_count; ++i) {
                const Marker& marker = metadata.markers[i];
                SF_CUE_POINT& cue = cues->cue_points[i];
                cue.indx = int32_t(marker.id);
                cue.position = uint32_t(marker.frame);
                cue.sample_offset = uint32_t(marker.frame);
                std::memcpy(&cue.fcc_chunk, "data", 4);
                std::strncpy(cue.name, marker.name.c_str(), sizeof(cue.name) - 1);
            }
            sf_command(file, SFC_SET_CUE, cues.get(), sizeof(SF_CUES));
        } else {
            lost.push_back(std::to_string(metadata.markers.size()) + " markers");
        }
    }
    for (const auto& [id, data] : metadata.chunks) {
        SF_CHUNK_INFO chunk{};
        std::strncpy(chunk.id, id.c_str(), sizeof(chunk.id) - 1);
        chunk.id_size = unsigned(id.size());
        chunk.datalen = unsigned(data.size());
        chunk.data = const_cast<char*>(data.data());
        if (sf_set_chunk(file, &chunk) != SF_ERR_NO_ERROR) lost.push_back(id + " data");
    }
    if (lost.empty()) return {};
    std::string what = lost[0];
    for (std::size_t i = 1; i < lost.size(); ++i)
        what += (i + 1 == lost.size() ? " and " : ", ") + lost[i];
    return {Quoted(path) + " cannot keep the input's " + what + " (" + ContainerName(format.sndfileFormat) +
            " has no place for them; name the output .wav or .aiff to keep them)"};
}

bool AppendMarkerNames(int fd, const std::vector<Marker>& markers) {
    std::string labels = "adtl";
    for (const Marker& marker : markers) {
        if (marker.name.empty()) continue;
        const std::string label = Le32(marker.id) + marker.name + '\0';
        labels += "labl" + Le32(uint32_t(label.size())) + label + (label.size() % 2 ? std::string(1, '\0') : "");
    }
    if (labels.size() == 4) return true;

    struct stat info {};
    char riff[4];
    if (::fstat(fd, &info) != 0 || ::pread(fd, riff, 4, 0) != 4) return false;
    if (std::memcmp(riff, "RIFF", 4) != 0) return true;  // RF64 and others: cue points only
    off_t end = info.st_size;
    if (end % 2 != 0 && !WriteAt(fd, end++, std::string(1, '\0'))) return false;  // chunks start on even bytes
    const std::string chunk = "LIST" + Le32(uint32_t(labels.size())) + labels;
    if (uint64_t(end) + chunk.size() - 8 > 0xFFFFFFFFu) return true;  // no room left in a RIFF size
    return WriteAt(fd, end, chunk) && WriteAt(fd, 4, Le32(uint32_t(end + off_t(chunk.size()) - 8)));
}

}  // namespace kesta
