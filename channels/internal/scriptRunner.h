// Runs plugin scripts: the temporary configuration file, the command line from the file-type
// table, the child process with its output and error files and its time-out, and the HTML
// pages that stand for a failed run.
#pragma once

#include "channels/internal/paramDefs.h"
#include "tools/tempFile.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace channels {

class Channel;

// What every script run shares: the local servers' ports and the file-type commands.
// Guarded by its own lock; the app plugin manager keeps it up to date.
struct ScriptSettings {
    int appServerPort = 0;
    int appPluginServerPort = 2605;
    // Extension with its dot, lower-case, to command template ("%1" the script, "%*" the
    // arguments).
    std::map<std::string, std::string> fileTypeCommands;
    // The most a script may write to its standard output, and again to its standard error
    // (0: no limit). A run past it is killed, so a runaway script can't fill memory or disk.
    std::uint64_t maxOutputBytes = std::uint64_t{65536} * 1024;
};
ScriptSettings scriptSettings();
void setScriptSettings(const ScriptSettings& settings);
// The built-in commands for ".py", ".pl", ".sh", ".class" and ".exe".
std::map<std::string, std::string> builtInFileTypeCommands();

// Writes the configuration file of one run: "System" (the command, the servers' addresses,
// every system value, the channel's file), then "PluginParameters".
std::unique_ptr<tools::TempFile> buildScriptConfigFile(const std::string& command,
                                                       const ParamDefTable& pluginParamDefs,
                                                       const ParamValues& pluginParamValues,
                                                       const Channel* channel);
// The same, then "ChannelParameters".
std::unique_ptr<tools::TempFile>
buildScriptConfigFileForChannel(const std::string& command, const ParamDefTable& pluginParamDefs,
                                const ParamValues& pluginParamValues,
                                const ParamDefTable& channelParamDefs,
                                const ParamValues& channelParamValues, const Channel* channel);

// A script's drive and directory: the folder that holds it, with its closing separator (the
// working directory of the script's process).
std::string scriptDirectory(const std::string& scriptFilename);

// The command line that runs the script with the configuration file; every path in it stays
// one argument (quoted when it holds blanks or quotes). Throws channels::Exception when no
// program is known for the script's file type.
std::string buildScriptCommandLine(const std::string& scriptFilename,
                                   const std::string& configFilename);

// The arguments of a command line, split by shell quoting rules (no shell is started).
std::vector<std::string> splitCommandLine(const std::string& commandLine);

// Runs the command in execDir with its standard output and error in the two files, in a
// process group of its own; kills the group and throws "The script timed out." after the
// time-out, or a message naming MaxScriptOutputKB when either file grows past the limit.
// Processes the script leaves behind when it ends by itself live on. Returns the exit code
// (128 + signal for a script killed by a signal).
std::uint32_t runScriptProcess(const std::string& commandLine, const std::string& execDir,
                               tools::TempFile& outputFile, tools::TempFile& errorFile,
                               int timeoutSeconds);
// Runs the script; 0 when it wrote output and nothing to standard error, otherwise -1 with
// an HTML page in the output file that says what went wrong.
int runScript(const std::string& commandLine, const std::string& execDir,
              tools::TempFile& outputFile, int timeoutSeconds);
// Ends every script run in progress (their callers get "The script was stopped."); later
// runs are not affected.
void abortAllScripts();

// "/id/request?params" into its three parts; throws "Invalid plugin URI: " + uri.
void parsePluginUri(const std::string& uri, std::string& pluginId, std::string& pluginRequest,
                    std::string& paramString);
// The plugin id of a loopback address ("http://127.0.0.1:port/id/..."); false for others.
bool extractPluginIdFromUrl(const std::string& url, std::string& pluginId);

} // namespace channels
