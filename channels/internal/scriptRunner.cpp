#include "channels/internal/scriptRunner.h"

#include "channels/channel.h"
#include "channels/common.h"
#include "channels/exception.h"
#include "lib/log/log.h"
#include "lib/misc/descriptor.h"
#include "lib/misc/iniValues.h"
#include "lib/misc/profileFile.h"
#include "lib/misc/systemValues.h"
#include "lib/misc/text.h"
#include "tools/net.h"

#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <spawn.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace channels {

namespace {

struct SharedSettings {
    threadSafety::CriticalSection lock{"ScriptSettings"};
    ScriptSettings settings = [] {
        ScriptSettings initial;
        initial.fileTypeCommands = builtInFileTypeCommands();
        return initial;
    }();
};

SharedSettings& shared() {
    static SharedSettings instance;
    return instance;
}

std::atomic<std::uint64_t> g_abortGeneration{0};

std::string loopbackAddress(int port) { return "http://127.0.0.1:" + std::to_string(port); }

// A value to put into a command line: as it is inside quotes of the template, and as one
// argument (or, for a Java class, a ready fragment) outside them.
struct CommandValue {
    std::string raw;
    std::string bare;
};

// Quotes a value so that splitCommandLine gives it back as one argument.
std::string quotedArgument(const std::string& value) {
    if (!value.empty() && value.find_first_of(" \t\n\r\v\f\"'\\") == std::string::npos)
        return value;
    std::string out = "\"";
    for (char c : value) {
        if (c == '"' || c == '\\')
            out += '\\';
        out += c;
    }
    return out + '"';
}

CommandValue plainValue(const std::string& value) { return {value, quotedArgument(value)}; }

// The value as it must stand inside the quote that is open in the template.
std::string valueFor(const CommandValue& value, char quote) {
    if (quote == 0)
        return value.bare;
    std::string out;
    for (char c : value.raw) {
        if (quote == '"' && (c == '"' || c == '\\'))
            out += '\\';
        if (quote == '\'' && c == '\'') {
            out += "'\\''"; // close, an escaped quote, open again
            continue;
        }
        out += c;
    }
    return out;
}

// The end of an insert's "!format!" that starts at text[at], or at itself without one.
std::size_t afterInsertFormat(const std::string& text, std::size_t at) {
    if (at >= text.size() || text[at] != '!')
        return at;
    const std::size_t close = text.find('!', at + 1);
    return close == std::string::npos ? at : close + 1;
}

// Expands the template the way the platform's message formatting does: "%1" and "%2" (with an
// optional "!format!") become the values, quoted for their place in the template so that a
// path with blanks stays one argument; "%0" ends the text, "%n" is a line break, "%r" a
// carriage return, "%t" a tab, and "%" before any other character but a digit stands for
// that character ("%%", "%*", "%.", "%!", "% ").
std::string expandArguments(const std::string& text, const CommandValue& first,
                            const CommandValue& second) {
    std::string out;
    char quote = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        const bool hasNext = i + 1 < text.size();
        if (c == '%' && hasNext && (text[i + 1] == '1' || text[i + 1] == '2')) {
            out += valueFor(text[++i] == '1' ? first : second, quote);
            i = afterInsertFormat(text, i + 1) - 1;
            continue;
        }
        if (c == '%' && hasNext && !std::isdigit(static_cast<unsigned char>(text[i + 1]))) {
            const char escaped = text[++i];
            if (escaped == 'n')
                out += "\r\n";
            else if (escaped == 'r' || escaped == 't')
                out += escaped == 'r' ? '\r' : '\t';
            else
                out += escaped;
            if (quote == 0 && (escaped == '"' || escaped == '\''))
                quote = escaped;
            else if (escaped == quote)
                quote = 0;
            continue;
        }
        if (c == '%' && hasNext && text[i + 1] == '0')
            break;
        out += c;
        if (c == '\\' && hasNext &&
            (quote == 0 || (quote == '"' && (text[i + 1] == '"' || text[i + 1] == '\\'))))
            out += text[++i];
        else if (quote == 0 && (c == '"' || c == '\''))
            quote = c;
        else if (c == quote)
            quote = 0;
    }
    return out;
}

void writeParameters(const std::string& file, const char* section, const ParamDefTable& defs,
                     const ParamValues& values) {
    for (const auto& definition : defs) {
        auto it = values.find(definition->name);
        profile::writeIniString(file, section, definition->name,
                                it != values.end() ? it->second : definition->defaultValue);
    }
}

std::uint64_t fileSize(const std::string& path) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    return error ? 0 : size;
}

void writePage(tools::TempFile& output, const std::vector<std::string>& lines) {
    std::ofstream& out = output.reopen(true);
    for (const std::string& line : lines)
        out << line << '\n';
    output.close();
}

} // namespace

ScriptSettings scriptSettings() {
    threadSafety::ScopedLock lock(shared().lock);
    return shared().settings;
}

void setScriptSettings(const ScriptSettings& settings) {
    threadSafety::ScopedLock lock(shared().lock);
    shared().settings = settings;
}

std::map<std::string, std::string> builtInFileTypeCommands() {
    return {{".py", "python3 \"%1\" %*"},
            {".pl", "perl \"%1\" %*"},
            {".sh", "sh \"%1\" %*"},
            {".class", "java %1 %*"},
            {".exe", "\"%1\" %*"}};
}

std::unique_ptr<tools::TempFile> buildScriptConfigFile(const std::string& command,
                                                       const ParamDefTable& pluginParamDefs,
                                                       const ParamValues& pluginParamValues,
                                                       const Channel* channel) {
    auto file = std::make_unique<tools::TempFile>();
    const std::string& path = file->path();
    const ScriptSettings settings = scriptSettings();
    profile::WriteBatch batch(path);
    profile::writeIniString(path, kSystemSection, "Command", command);
    profile::writeIniString(path, kSystemSection, "AppServerUrl",
                            loopbackAddress(settings.appServerPort));
    profile::writeIniString(path, kSystemSection, "AppPluginServerUrl",
                            loopbackAddress(settings.appPluginServerPort));
    for (const auto& [name, value] : misc::SystemValues::instance().all())
        profile::writeIniString(path, kSystemSection, name, value);
    if (channel)
        profile::writeIniString(path, kSystemSection, "ChannelConfigFile", channel->fileName());
    writeParameters(path, kPluginParametersSection, pluginParamDefs, pluginParamValues);
    if (!batch.commit())
        throw Exception("Can't write the script's configuration file: " +
                        profile::lastWriteError());
    return file;
}

std::unique_ptr<tools::TempFile>
buildScriptConfigFileForChannel(const std::string& command, const ParamDefTable& pluginParamDefs,
                                const ParamValues& pluginParamValues,
                                const ParamDefTable& channelParamDefs,
                                const ParamValues& channelParamValues, const Channel* channel) {
    auto file = buildScriptConfigFile(command, pluginParamDefs, pluginParamValues, channel);
    profile::WriteBatch batch(file->path());
    writeParameters(file->path(), kChannelParametersSection, channelParamDefs, channelParamValues);
    if (!batch.commit())
        throw Exception("Can't write the script's configuration file: " +
                        profile::lastWriteError());
    return file;
}

std::string scriptDirectory(const std::string& scriptFilename) {
    std::string directory = std::filesystem::path(scriptFilename).parent_path().string();
    if (directory.empty() || directory.back() != '/')
        directory += '/';
    return directory;
}

std::string buildScriptCommandLine(const std::string& scriptFilename,
                                   const std::string& configFilename) {
    const std::filesystem::path script(scriptFilename);
    const std::string extension = misc::fileExtension(scriptFilename);
    std::string commandTemplate;
    {
        const ScriptSettings settings = scriptSettings();
        auto it = settings.fileTypeCommands.find(misc::lowered(extension));
        if (it != settings.fileTypeCommands.end()) {
            if (it->second.empty())
                throw Exception("This file type has no 'shell/open' command specified: " +
                                extension);
            commandTemplate = it->second;
        } else if (::access(scriptFilename.c_str(), X_OK) == 0) {
            commandTemplate = "\"%1\" %*"; // an executable without an entry runs directly
        } else {
            throw Exception("No application is registered for this file type: " + extension);
        }
    }
    CommandValue scriptArgument = plainValue(scriptFilename);
    if (::strcasecmp(extension.c_str(), ".class") == 0) {
        const std::string directory = scriptDirectory(scriptFilename);
        const std::string name = script.stem().string();
        scriptArgument = {"-cp " + directory + " " + name,
                          "-cp " + quotedArgument(directory) + " " + quotedArgument(name)};
    }
    const CommandValue config = plainValue(configFilename);
    if (commandTemplate.find("%1") == std::string::npos)
        return commandTemplate + " " + scriptArgument.bare + " " + config.bare;
    if (const std::size_t all = commandTemplate.find("%*"); all != std::string::npos)
        commandTemplate.replace(all, 2, "%2");
    return expandArguments(commandTemplate, scriptArgument, config);
}

std::vector<std::string> splitCommandLine(const std::string& commandLine) {
    std::vector<std::string> args;
    std::string current;
    bool inArgument = false;
    char quote = 0;
    for (std::size_t i = 0; i < commandLine.size(); ++i) {
        const char c = commandLine[i];
        if (quote) {
            if (c == quote)
                quote = 0;
            else if (c == '\\' && quote == '"' && i + 1 < commandLine.size() &&
                     (commandLine[i + 1] == '"' || commandLine[i + 1] == '\\'))
                current += commandLine[++i];
            else
                current += c;
        } else if (c == '"' || c == '\'') {
            quote = c;
            inArgument = true;
        } else if (c == '\\' && i + 1 < commandLine.size()) {
            current += commandLine[++i];
            inArgument = true;
        } else if (std::isspace(static_cast<unsigned char>(c))) {
            if (inArgument)
                args.push_back(std::move(current));
            current.clear();
            inArgument = false;
        } else {
            current += c;
            inArgument = true;
        }
    }
    if (inArgument)
        args.push_back(std::move(current));
    return args;
}

namespace {

std::uint64_t sizeOf(const misc::Descriptor& file) {
    struct stat info {};
    return ::fstat(file.get(), &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
}

int openForScript(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        throw Exception("Can't open temporary file.");
    return fd;
}

pid_t spawnScript(std::vector<std::string> args, const std::string& execDir, int out, int err) {
    std::vector<char*> argv;
    for (std::string& arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
    if (!execDir.empty())
        posix_spawn_file_actions_addchdir_np(&actions, execDir.c_str());
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK |
                                              POSIX_SPAWN_SETSIGDEF);
    posix_spawnattr_setpgroup(&attributes, 0);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    pid_t child = 0;
    const int spawned =
        ::posix_spawnp(&child, argv[0], &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (spawned != 0) {
        errno = spawned;
        throw Exception("Can't run the script: " + tools::lastSystemErrorText());
    }
    return child;
}

std::string outputLimitMessage(std::uint64_t limit) {
    return "The script wrote more than " + std::to_string(limit / 1024) +
           " KB of output (the limit set by MaxScriptOutputKB).";
}

} // namespace

std::uint32_t runScriptProcess(const std::string& commandLine, const std::string& execDir,
                               tools::TempFile& outputFile, tools::TempFile& errorFile,
                               int timeoutSeconds) {
    outputFile.close();
    errorFile.close();
    const misc::Descriptor out(openForScript(outputFile.path()));
    const misc::Descriptor err(openForScript(errorFile.path()));
    PELSU_LOG(scriptPluginsGroup(), "Running script process: execDir=" << execDir);
    std::vector<std::string> args = splitCommandLine(commandLine);
    if (args.empty())
        throw Exception("Can't run the script: the command line is empty");
    const std::uint64_t limit = scriptSettings().maxOutputBytes;
    // Taken before the script can run: a stop asked for once it runs must not be missed.
    const std::uint64_t generation = g_abortGeneration.load();
    misc::ChildProcess child(spawnScript(std::move(args), execDir, out.get(), err.get()));
    const auto overLimit = [&] {
        return limit > 0 && (sizeOf(out) > limit || sizeOf(err) > limit);
    };

    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::seconds(std::max(0, timeoutSeconds));
    int status = 0;
    std::chrono::microseconds pause(50);
    for (;;) {
        bool waitFailed = false;
        if (child.reapIfEnded(status, waitFailed))
            break;
        const bool aborted = g_abortGeneration.load() != generation;
        const bool tooMuch = overLimit();
        if (waitFailed || aborted || tooMuch || std::chrono::steady_clock::now() >= deadline) {
            child.killAndReap();
            throw Exception(aborted   ? "The script was stopped."
                            : tooMuch ? outputLimitMessage(limit)
                                      : "The script timed out.");
        }
        // Short scripts are noticed at once; long ones are looked at every 10 ms.
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::microseconds(10000));
    }
    // Processes the script started and left running are its own business: only a time-out
    // ends them. They may hold the files open; the run is over when the script itself ends.
    if (overLimit())
        throw Exception(outputLimitMessage(limit));
    if (WIFEXITED(status))
        return static_cast<std::uint32_t>(WEXITSTATUS(status));
    return 128u + static_cast<std::uint32_t>(WTERMSIG(status));
}

int runScript(const std::string& commandLine, const std::string& execDir,
              tools::TempFile& outputFile, int timeoutSeconds) {
    tools::TempFile errorFile;
    const auto rc = static_cast<std::int32_t>(
        runScriptProcess(commandLine, execDir, outputFile, errorFile, timeoutSeconds));
    const std::uint64_t outputSize = fileSize(outputFile.path());
    const std::uint64_t errorSize = fileSize(errorFile.path());
    if (rc == 0 && outputSize > 0 && errorSize == 0)
        return 0;
    if (errorSize == 0) {
        writePage(outputFile, {"<HTML><BODY>", "<P>The script failed: rc=" + std::to_string(rc),
                               "</BODY></HTML>"});
        return -1;
    }
    writePage(outputFile,
              {"<HTML><BODY>", "<P>The script caused an error:", "<PRE style='margin-left:30px'>",
               errorFile.read(), "</PRE>", "</BODY></HTML>"});
    return -1;
}

void abortAllScripts() { ++g_abortGeneration; }

void parsePluginUri(const std::string& uri, std::string& pluginId, std::string& pluginRequest,
                    std::string& paramString) {
    if (uri.empty() || uri[0] != '/')
        throw Exception("Invalid plugin URI: " + uri);
    pluginRequest.clear();
    paramString.clear();
    const std::size_t slash = uri.find('/', 1);
    if (slash == std::string::npos) {
        pluginId = uri.substr(1);
        return;
    }
    pluginId = uri.substr(1, slash - 1);
    const std::size_t question = uri.find('?', slash + 1);
    if (question == std::string::npos) {
        pluginRequest = uri.substr(slash + 1);
        return;
    }
    pluginRequest = uri.substr(slash + 1, question - slash - 1);
    paramString = uri.substr(question + 1);
}

bool extractPluginIdFromUrl(const std::string& url, std::string& pluginId) {
    static const std::string prefix = "http://127.0.0.1:";
    if (url.compare(0, prefix.size(), prefix) != 0)
        return false;
    const std::size_t slash = url.find('/', prefix.size());
    if (slash == std::string::npos)
        return false;
    const std::size_t end = url.find('/', slash + 1);
    pluginId =
        url.substr(slash + 1, end == std::string::npos ? std::string::npos : end - slash - 1);
    return true;
}

} // namespace channels
