// The pelsu-cli commands that change channels: add, remove, update and import-opml. They run
// in whichever process holds the user directory: in pelsu-cli itself when no instance runs,
// or inside the running instance (pelsu or pelsu-cli run), on its channel manager, when
// pelsu-cli hands them over. So they take the manager and their two output streams as given.
#pragma once

#include "app/environment.h"
#include "channels/channelManager.h"

#include <optional>
#include <ostream>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

namespace app {

// A mistake in the command line: reported with the usage text, exit status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Exit codes.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

struct ChannelCommandContext {
    channels::ChannelManager& manager;
    const Environment& environment;
    std::ostream& out;
    std::ostream& err;
    std::vector<std::string> args; // after the command's name
    std::string workingDir;        // relative file names resolve against it (empty: the current)
    std::stop_token stop;          // an update waiting for the worker gives up when requested
    int loadFailures = 0;          // channel files that failed to load, reported by update
};

struct ChannelCommand {
    const char* name;
    const char* usage;   // arguments, as shown by the usage text
    const char* summary; // one line
    int (*run)(ChannelCommandContext& context);
};

// add, remove, update, import-opml.
const std::vector<ChannelCommand>& channelCommands();
// The command of that name, or null.
const ChannelCommand* findChannelCommand(const std::string& name);

// Runs the command, reporting mistakes as pelsu-cli does: a UsageError with the usage text
// (status 2), any other failure as "pelsu-cli: " and the reason (status 1).
int runChannelCommand(const ChannelCommand& command, ChannelCommandContext& context);

// What a new channel is made of: a feed's address or a plugin script (exactly one of them).
struct NewChannel {
    std::string address;            // an http(s) address or a local file's path
    std::string script;             // a channel plugin script's path
    std::string id;                 // valid and unused
    std::string name;               // the user's display name (empty: the feed's title)
    int interval = -1;              // seconds between automatic updates (negative: the default)
    std::optional<bool> autoUpdate; // unset: the default
    std::vector<std::pair<std::string, std::string>> parameters; // a plugin channel's
};

// Writes the new channel's file (with its channel parameters) and adds it to the manager;
// throws channels::Exception when the ID is taken or the file can't be written. The first
// update is the caller's to request.
channels::Channel* addNewChannel(channels::ChannelManager& manager, const NewChannel& channel);

// A non-negative decimal number from an argument, or a UsageError naming the option.
int parseCount(const std::string& text, const std::string& option);
bool isValidChannelId(const std::string& id);
// The channel's display name, or its address when it has none yet.
std::string nameOrAddress(const channels::Channel& channel);
// The channel, or a channels::Exception naming the unknown ID.
channels::Channel& requireChannel(channels::ChannelManager& manager, const std::string& id);

} // namespace app
