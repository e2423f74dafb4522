#include "cli/environment.h"

#include "channels/exception.h"
#include "channels/internal/scriptRunner.h"

#include <filesystem>
#include <unistd.h>

namespace cli {

namespace {

std::string executablePath() {
    std::error_code error;
    auto path = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::string() : path.string();
}

} // namespace

Environment startEnvironment(const CommandContext& context) {
    Environment environment;
    const std::string programDir = channels::findProgramDirectory(executablePath());
    const std::string dataRoot = channels::findDataRoot(context.home);
    const std::string userName =
        channels::determineUserName((std::filesystem::path(programDir) / "debug.ini").string());
    environment.paths = channels::buildAppPaths(programDir, dataRoot, userName);
    environment.firstRun = channels::prepareUserDirectory(environment.paths);
    channels::applyDebugSettings(environment.paths);
    channels::openMessageLog(environment.paths);
    std::string problem;
    if (!environment.options.load(environment.paths.configFile, environment.paths.globalIniFile,
                                  &problem))
        throw channels::Exception("Couldn't load the global options.\n\n" + problem);
    channels::publishSystemValues(environment.paths, PELSU_VERSION);
    channels::ScriptSettings scripts = channels::scriptSettings();
    scripts.appServerPort = environment.options.appServerPortNo;
    scripts.appPluginServerPort = environment.options.appPluginServerPortNo;
    scripts.maxOutputBytes =
        static_cast<std::uint64_t>(environment.options.maxScriptOutputKB) * 1024u;
    for (const auto& [extension, command] : environment.options.scriptFileTypeCommands)
        scripts.fileTypeCommands[extension] = command;
    channels::setScriptSettings(scripts);
    return environment;
}

std::string toUtf8(const std::string& latin1) {
    std::string out;
    out.reserve(latin1.size());
    for (char c : latin1) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80) {
            out += c;
        } else {
            out += static_cast<char>(0xC0 | (byte >> 6));
            out += static_cast<char>(0x80 | (byte & 0x3F));
        }
    }
    return out;
}

std::string toTerminal(const std::string& latin1) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string visible;
    visible.reserve(latin1.size());
    for (char c : latin1) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || (byte >= 0x7F && byte < 0xA0)) {
            visible += "\\x";
            visible += kHex[byte >> 4];
            visible += kHex[byte & 0xF];
        } else {
            visible += c;
        }
    }
    return toUtf8(visible);
}

} // namespace cli
