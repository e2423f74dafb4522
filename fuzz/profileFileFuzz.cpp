// Any bytes as a profile file: reading every section and key never fails, and values survive
// an escaped write and a read.

#include "lib/misc/iniValues.h"
#include "lib/misc/profileFile.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <unistd.h>

namespace {
std::string scratchFile() {
    return "/tmp/pelsu-fuzz-profile-" + std::to_string(::getpid()) + ".ini";
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string path = scratchFile();
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (FILE* file = std::fopen(path.c_str(), "wb")) {
        std::fwrite(text.data(), 1, text.size(), file);
        std::fclose(file);
    }
    profile::clearCache();
    for (const std::string& section : profile::listSections(path))
        for (const std::string& key : profile::listKeys(path, section))
            (void)profile::readIniString(path, section, key);
    // Whatever the value, it comes back as written (less white space at its ends).
    const std::string value = text.substr(0, 64);
    profile::writeIniString(path, "Fuzz", "Value", value);
    profile::clearCache();
    const std::string back = profile::readIniString(path, "Fuzz", "Value", "", false);
    const size_t first = value.find_first_not_of(' ');
    const std::string expected = first == std::string::npos
                                     ? ""
                                     : value.substr(first, value.find_last_not_of(' ') - first + 1);
    if (back != expected)
        __builtin_trap();
    if (profile::unescapeIniValue(profile::escapeIniValue(value)) != value)
        __builtin_trap();
    return 0;
}
