#include "cairo_library.h"

#include <dlfcn.h>

#include <string>

#include "errors.h"

namespace kesta {

#if defined(__APPLE__)
const char* const kCairoFile = "libcairo.2.dylib";
#else
const char* const kCairoFile = "libcairo.so.2";
#endif

namespace {

CliError Missing(const std::string& why) {
    return CliError(kExitFault, "cannot draw pictures", why,
                    "install cairo (the libcairo2 package on Debian and Ubuntu); the other commands work without it");
}

}  // namespace

CairoLibrary OpenCairo(const char* file) {
    void* handle = ::dlopen(file, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char* reason = ::dlerror();
        throw Missing(std::string(file) + " cannot be opened" + (reason ? std::string(" (") + reason + ")" : ""));
    }
    CairoLibrary cairo;
    const auto find = [&](auto& function, const char* name) {
        function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(::dlsym(handle, name));
        if (function == nullptr) {
            ::dlclose(handle);
            throw Missing(std::string(file) + " has no " + name + " (it is older than kesta needs)");
        }
    };
#define KESTA_CAIRO_FIND(name) find(cairo.name, "cairo_" #name);
    KESTA_CAIRO_FUNCTIONS(KESTA_CAIRO_FIND)
#undef KESTA_CAIRO_FIND
    return cairo;
}

const CairoLibrary& Cairo() {
    static const CairoLibrary cairo = OpenCairo(kCairoFile);
    return cairo;
}

}  // namespace kesta
