#include "audio_format.h"

#include <sndfile.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>
#include <vector>

#include "errors.h"

namespace kesta {

int AudioFormat::Container() const {
    return sndfileFormat & SF_FORMAT_TYPEMASK;
}
int AudioFormat::Encoding() const {
    return sndfileFormat & SF_FORMAT_SUBMASK;
}

namespace {

struct Name {
    int format;
    const char* name;
};

constexpr Name kContainerNames[] = {
    {SF_FORMAT_WAV, "WAV"},   {SF_FORMAT_WAVEX, "WAV (extensible)"},
    {SF_FORMAT_RF64, "RF64"}, {SF_FORMAT_W64, "Wave64"},
    {SF_FORMAT_AIFF, "AIFF"}, {SF_FORMAT_CAF, "CAF"},
    {SF_FORMAT_FLAC, "FLAC"}, {SF_FORMAT_OGG, "Ogg"},
    {SF_FORMAT_MPEG, "MPEG"}, {SF_FORMAT_AU, "AU"},
    {SF_FORMAT_RAW, "raw"},   {SF_FORMAT_PAF, "PAF"},
    {SF_FORMAT_SVX, "8SVX"},  {SF_FORMAT_NIST, "NIST SPHERE"},
    {SF_FORMAT_VOC, "VOC"},   {SF_FORMAT_IRCAM, "IRCAM"},
    {SF_FORMAT_MAT4, "MAT4"}, {SF_FORMAT_MAT5, "MAT5"},
    {SF_FORMAT_PVF, "PVF"},   {SF_FORMAT_XI, "XI"},
    {SF_FORMAT_HTK, "HTK"},   {SF_FORMAT_SDS, "SDS"},
    {SF_FORMAT_AVR, "AVR"},   {SF_FORMAT_SD2, "SD2"},
    {SF_FORMAT_WVE, "WVE"},   {SF_FORMAT_MPC2K, "MPC2K"},
};

constexpr Name kEncodingNames[] = {
    {SF_FORMAT_PCM_S8, "PCM 8-bit"},
    {SF_FORMAT_PCM_U8, "PCM 8-bit unsigned"},
    {SF_FORMAT_PCM_16, "PCM 16-bit"},
    {SF_FORMAT_PCM_24, "PCM 24-bit"},
    {SF_FORMAT_PCM_32, "PCM 32-bit"},
    {SF_FORMAT_FLOAT, "32-bit float"},
    {SF_FORMAT_DOUBLE, "64-bit float"},
    {SF_FORMAT_ULAW, "u-law"},
    {SF_FORMAT_ALAW, "A-law"},
    {SF_FORMAT_IMA_ADPCM, "IMA ADPCM"},
    {SF_FORMAT_MS_ADPCM, "Microsoft ADPCM"},
    {SF_FORMAT_GSM610, "GSM 6.10"},
    {SF_FORMAT_VOX_ADPCM, "VOX ADPCM"},
    {SF_FORMAT_G721_32, "G.721 32 kbit/s"},
    {SF_FORMAT_G723_24, "G.723 24 kbit/s"},
    {SF_FORMAT_G723_40, "G.723 40 kbit/s"},
    {SF_FORMAT_DWVW_12, "DWVW 12-bit"},
    {SF_FORMAT_DWVW_16, "DWVW 16-bit"},
    {SF_FORMAT_DWVW_24, "DWVW 24-bit"},
    {SF_FORMAT_DPCM_8, "DPCM 8-bit"},
    {SF_FORMAT_DPCM_16, "DPCM 16-bit"},
    {SF_FORMAT_VORBIS, "Vorbis"},
    {SF_FORMAT_OPUS, "Opus"},
    {SF_FORMAT_ALAC_16, "ALAC 16-bit"},
    {SF_FORMAT_ALAC_20, "ALAC 20-bit"},
    {SF_FORMAT_ALAC_24, "ALAC 24-bit"},
    {SF_FORMAT_ALAC_32, "ALAC 32-bit"},
    {SF_FORMAT_MPEG_LAYER_I, "MPEG layer I"},
    {SF_FORMAT_MPEG_LAYER_II, "MPEG layer II"},
    {SF_FORMAT_MPEG_LAYER_III, "MP3"},
};

template <std::size_t N>
std::string Lookup(const Name (&table)[N], int format, int libsndfileQuery) {
    for (const Name& entry : table)
        if (entry.format == format) return entry.name;
    // Something newer than this table: ask libsndfile for its own name.
    SF_FORMAT_INFO info{};
    info.format = format;
    if (sf_command(nullptr, libsndfileQuery, &info, sizeof(info)) == 0 && info.name != nullptr) return info.name;
    return "unknown";
}

// Extensions that name a container. `family` lists the containers the extension already fits, so
// out.wav for a WAV-extensible input keeps the input's container.
struct ExtensionRule {
    std::string_view extension;
    int container;
    std::array<int, 3> family;  // unused slots are 0
    int encoding;               // the encoding the extension implies (lossy containers), or 0 for "the input's"
};

const ExtensionRule kExtensionRules[] = {
    {"wav", SF_FORMAT_WAV, {SF_FORMAT_WAV, SF_FORMAT_WAVEX, SF_FORMAT_RF64}, 0},
    {"wave", SF_FORMAT_WAV, {SF_FORMAT_WAV, SF_FORMAT_WAVEX, SF_FORMAT_RF64}, 0},
    {"rf64", SF_FORMAT_RF64, {SF_FORMAT_RF64}, 0},
    {"w64", SF_FORMAT_W64, {SF_FORMAT_W64}, 0},
    {"aif", SF_FORMAT_AIFF, {SF_FORMAT_AIFF}, 0},
    {"aiff", SF_FORMAT_AIFF, {SF_FORMAT_AIFF}, 0},
    {"aifc", SF_FORMAT_AIFF, {SF_FORMAT_AIFF}, 0},
    {"caf", SF_FORMAT_CAF, {SF_FORMAT_CAF}, 0},
    {"flac", SF_FORMAT_FLAC, {SF_FORMAT_FLAC}, 0},
    {"au", SF_FORMAT_AU, {SF_FORMAT_AU}, 0},
    {"snd", SF_FORMAT_AU, {SF_FORMAT_AU}, 0},
    {"ogg", SF_FORMAT_OGG, {SF_FORMAT_OGG}, SF_FORMAT_VORBIS},
    {"oga", SF_FORMAT_OGG, {SF_FORMAT_OGG}, SF_FORMAT_VORBIS},
    {"opus", SF_FORMAT_OGG, {SF_FORMAT_OGG}, SF_FORMAT_OPUS},
    {"mp3", SF_FORMAT_MPEG, {SF_FORMAT_MPEG}, SF_FORMAT_MPEG_LAYER_III},
};

std::string LowerExtension(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    const std::size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return {};
    std::string ext = path.substr(dot + 1);
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return ext;
}

// Encodings that are a way of storing samples rather than a codec of their own container; they
// may move to another container. Codecs (ADPCM, GSM, Vorbis, MP3, ...) become PCM there.
bool IsSampleEncoding(int sndfileFormat) {
    switch (sndfileFormat & SF_FORMAT_SUBMASK) {
        case SF_FORMAT_PCM_S8:
        case SF_FORMAT_PCM_U8:
        case SF_FORMAT_PCM_16:
        case SF_FORMAT_PCM_24:
        case SF_FORMAT_PCM_32:
        case SF_FORMAT_FLOAT:
        case SF_FORMAT_DOUBLE:
        case SF_FORMAT_ULAW:
        case SF_FORMAT_ALAW:
            return true;
        default:
            return false;
    }
}

constexpr const char* kKnownExtensions = ".wav, .flac, .aiff, .caf, .w64, .rf64, .au, .ogg, .opus or .mp3";

// A file in memory that Writable opens a trial output in.
struct TrialFile {
    sf_count_t size = 0, position = 0;
};

}  // namespace

bool Writable(int sndfileFormat, const AudioFormat& input) {
    SF_INFO info{};
    info.format = sndfileFormat;
    info.samplerate = input.sampleRate;
    info.channels = input.channels;
    if (sf_format_check(&info) == 0) return false;
    SF_VIRTUAL_IO io{};
    io.get_filelen = [](void* data) { return static_cast<TrialFile*>(data)->size; };
    io.seek = [](sf_count_t offset, int whence, void* data) {
        auto* file = static_cast<TrialFile*>(data);
        const sf_count_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? file->position : file->size;
        file->position = std::max<sf_count_t>(0, base + offset);
        return file->position;
    };
    io.read = [](void*, sf_count_t, void*) { return sf_count_t(0); };
    io.write = [](const void*, sf_count_t count, void* data) {
        auto* file = static_cast<TrialFile*>(data);
        file->position += count;
        file->size = std::max(file->size, file->position);
        return count;
    };
    io.tell = [](void* data) { return static_cast<TrialFile*>(data)->position; };
    TrialFile trial;
    SNDFILE* file = sf_open_virtual(&io, SFM_WRITE, &info, &trial);
    if (file == nullptr) return false;
    sf_close(file);
    return true;
}

std::string ContainerName(int sndfileFormat) {
    return Lookup(kContainerNames, sndfileFormat & SF_FORMAT_TYPEMASK, SFC_GET_FORMAT_INFO);
}

std::string EncodingName(int sndfileFormat) {
    return Lookup(kEncodingNames, sndfileFormat & SF_FORMAT_SUBMASK, SFC_GET_FORMAT_INFO);
}

std::string DescribeFormat(int sndfileFormat) {
    return ContainerName(sndfileFormat) + " (" + EncodingName(sndfileFormat) + ")";
}

int IntegerSampleBits(int sndfileFormat) {
    switch (sndfileFormat & SF_FORMAT_SUBMASK) {
        case SF_FORMAT_PCM_S8:
        case SF_FORMAT_PCM_U8:
            return 8;
        case SF_FORMAT_PCM_16:
        case SF_FORMAT_ALAC_16:
            return 16;
        case SF_FORMAT_ALAC_20:
            return 20;
        case SF_FORMAT_PCM_24:
        case SF_FORMAT_ALAC_24:
            return 24;
        case SF_FORMAT_PCM_32:
        case SF_FORMAT_ALAC_32:
            return 32;
        default:
            return 0;
    }
}

bool IsFloatEncoding(int sndfileFormat) {
    const int encoding = sndfileFormat & SF_FORMAT_SUBMASK;
    return encoding == SF_FORMAT_FLOAT || encoding == SF_FORMAT_DOUBLE;
}

std::optional<SampleLayout> PlainLayout(int sndfileFormat) {
    switch (sndfileFormat & SF_FORMAT_TYPEMASK) {
        case SF_FORMAT_WAV:
        case SF_FORMAT_WAVEX:
        case SF_FORMAT_RF64:
        case SF_FORMAT_W64:
        case SF_FORMAT_AIFF:
        case SF_FORMAT_CAF:
            break;
        default:
            return std::nullopt;
    }
    switch (sndfileFormat & SF_FORMAT_SUBMASK) {
        case SF_FORMAT_PCM_16:
            return SampleLayout::Int16;
        case SF_FORMAT_PCM_24:
            return SampleLayout::Int24;
        case SF_FORMAT_PCM_32:
            return SampleLayout::Int32;
        case SF_FORMAT_FLOAT:
            return SampleLayout::Float;
        default:
            return std::nullopt;
    }
}

int BytesPerSample(int sndfileFormat) {
    switch (sndfileFormat & SF_FORMAT_SUBMASK) {
        case SF_FORMAT_FLOAT:
            return 4;
        case SF_FORMAT_DOUBLE:
            return 8;
        case SF_FORMAT_ULAW:
        case SF_FORMAT_ALAW:
            return 1;
        default:
            return IsSampleEncoding(sndfileFormat) ? IntegerSampleBits(sndfileFormat) / 8 : 0;
    }
}

AudioFormat ChooseOutputFormat(const AudioFormat& input, const std::string& outputPath) {
    AudioFormat output = input;
    const std::string ext = LowerExtension(outputPath);
    if (ext.empty()) return output;  // no extension (or standard output): the input's format
    const auto rule = std::find_if(std::begin(kExtensionRules), std::end(kExtensionRules),
                                   [&](const ExtensionRule& r) { return r.extension == ext; });
    if (rule == std::end(kExtensionRules))
        throw UsageError(
            "cannot tell which format to write " + Quoted(outputPath),
            Quoted("." + ext) + " is not an audio format kesta writes",
            std::string("name it ") + kKnownExtensions + ", or leave the extension out to keep the input's format");

    const bool sameFamily =
        std::find(rule->family.begin(), rule->family.end(), input.Container()) != rule->family.end();
    const bool encodingFits = rule->encoding == 0 || rule->encoding == input.Encoding();
    if (sameFamily && encodingFits && Writable(input.sndfileFormat, input)) return output;

    // Another container: the input's sample encoding if it fits, else the nearest one the container
    // holds (a lossy container has its one codec).
    const int container = rule->container;
    std::vector<int> candidates;
    if (rule->encoding != 0) {
        candidates = {rule->encoding};
    } else {
        if (IsSampleEncoding(input.sndfileFormat)) candidates.push_back(input.Encoding());
        if (IsFloatEncoding(input.sndfileFormat)) candidates.push_back(SF_FORMAT_FLOAT);
        candidates.insert(candidates.end(), {SF_FORMAT_PCM_24, SF_FORMAT_PCM_16, SF_FORMAT_FLOAT});
    }
    for (int encoding : candidates) {
        if (Writable(container | encoding, input)) {
            output.sndfileFormat = container | encoding;
            return output;
        }
    }
    throw UsageError("cannot write " + Quoted(outputPath) + " as " + ContainerName(container),
                     ContainerName(container) + " cannot hold " + std::to_string(input.channels) + " channel(s) at " +
                         std::to_string(input.sampleRate) + " Hz",
                     "name the output with the input's extension to keep its format");
}

}  // namespace kesta
