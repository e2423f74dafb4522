#include "app/globalOptions.h"

#include "lib/misc/iniValues.h"
#include "lib/misc/profileFile.h"
#include "lib/misc/text.h"

#include <variant>

namespace app {

namespace {

const char* const kSection = "Global Options";

// One option: its key, the field, and how it is stored. Read in table order.
struct Option {
    const char* key;
    std::variant<int GlobalOptions::*, bool GlobalOptions::*, std::string GlobalOptions::*,
                 ColourRef GlobalOptions::*>
        field;
    int minimum = 0; // bounded integers: minimum < maximum
    int maximum = 0;
    bool readOnly = false;
    const char* readKey = nullptr; // read under another key than it is written under
};

using G = GlobalOptions;
const Option kOptions[] = {
    {"UiHandlerType", &G::uiHandlerType, 0, 1},
    {"OneClickMode", &G::oneClickMode},
    {"MdiTabs", &G::mdiTabs, 0, 1},
    {"AutoHideFeedItems", &G::autoHideFeedItems},
    {"ShowCaptionBar", &G::showCaptionBar},
    {"HideInTaskbar", &G::hideInTaskbar},
    {"MaximizeFrameWindows", &G::maximizeFrameWindows},
    {"NotificationBalloonDisplayTime", &G::notificationBalloonDisplayTime, 1, 1800},
    {"NotificationBalloonPosition", &G::notificationBalloonPosition, 0, 3},
    {"AutoStartApp", &G::autoStartApp},
    {"StartMinimized", &G::startMinimized},
    {"DisableAllAnimation", &G::disableAllAnimation},
    {"DisableAllSound", &G::disableAllSound},
    {"MaxNotificationQueueLength", &G::maxNotificationQueueLength},
    {"MaxConsecutiveChannelUpdateErrors", &G::maxConsecutiveChannelUpdateErrors},
    {"PlaySoundOnError", &G::playSoundOnError},
    {"DefaultErrorSoundFilename", &G::defaultErrorSoundFilename},
    {"ShowBriefChannelSummaries", &G::showBriefChannelSummaries},
    {"MaxItemViewHeight", &G::maxItemViewHeight, 0, 3},
    {"AppPluginServerPortNo", &G::appPluginServerPortNo, 1000, 65535},
    {"ListenForAmphetaDeskSubscriptions", &G::listenForAmphetaDeskSubscriptions},
    {"ListenForRadioUserlandSubscriptions", &G::listenForRadioUserlandSubscriptions},
    {"ListenForHeadlineViewerSubscriptions", &G::listenForHeadlineViewerSubscriptions},
    {"_HttpUserAgent", &G::httpUserAgent, 0, 0, true},
    {"ScriptTimeout", &G::scriptTimeout, 5, 300},
    {"ControlCenterMyChannelsFontName", &G::controlCenterMyChannelsFontName},
    {"ControlCenterMyChannelsFontSize", &G::controlCenterMyChannelsFontSize, 8, 50},
    {"ControlCenterAutoUpdateChannelFgdCol", &G::controlCenterAutoUpdateChannelFgdCol},
    // Written under one key and read under another: a chosen colour does not come back.
    {"ControlCenterNonAutoUpdateChannelFgdCol", &G::controlCenterNonAutoUpdateChannelFgdCol, 0, 0,
     false, "mControlCenterNonAutoUpdateChannelFgdCol"},
    {"ControlCenterMyChannelsBgdCol", &G::controlCenterMyChannelsBgdCol},
    {"ControlCenterAppPluginsFontName", &G::controlCenterAppPluginsFontName},
    {"ControlCenterAppPluginsFontSize", &G::controlCenterAppPluginsFontSize, 8, 50},
    {"ControlCenterAppPluginsFgdCol", &G::controlCenterAppPluginsFgdCol},
    {"ControlCenterAppPluginsBgdCol", &G::controlCenterAppPluginsBgdCol},
    {"ChannelItemViewFontName", &G::channelItemViewFontName},
    {"ChannelItemViewFontSize", &G::channelItemViewFontSize, 8, 50},
    {"ChannelItemViewNewFeedItemFgdCol", &G::channelItemViewNewFeedItemFgdCol},
    {"ChannelItemViewViewedFeedItemFgdCol", &G::channelItemViewViewedFeedItemFgdCol},
    {"ChannelItemViewBgdCol", &G::channelItemViewBgdCol},
    {"ItalicizeViewedFeedItems", &G::italicizeViewedFeedItems},
    {"CaptionBarFontName", &G::captionBarFontName},
    {"CaptionBarFontSize", &G::captionBarFontSize, 8, 50},
    {"CaptionBarFgdCol", &G::captionBarFgdCol},
    {"CaptionBarBgdCol", &G::captionBarBgdCol},
    {"CaptionBarItalics", &G::captionBarItalics},
    {"MaxActivityLogMsgs", &G::maxActivityLogMsgs},
    {"ActivityLogFontName", &G::activityLogFontName},
    {"ActivityLogFontSize", &G::activityLogFontSize, 8, 50},
    {"ActivityLogFgdCol", &G::activityLogFgdCol, 0, 0, true},
    {"ActivityLogBgdCol", &G::activityLogBgdCol, 0, 0, true},
    {"MaxErrorLogMsgs", &G::maxErrorLogMsgs},
    {"ErrorLogFontName", &G::errorLogFontName},
    {"ErrorLogFontSize", &G::errorLogFontSize, 8, 50},
    {"ErrorLogFgdCol", &G::errorLogFgdCol, 0, 0, true},
    {"ErrorLogBgdCol", &G::errorLogBgdCol, 0, 0, true},
    {"NoWelcomeNotification", &G::noWelcomeNotification},
    // The engine's switches and the download limits.
    {"DisableInternet", &G::disableInternet},
    {"LogChannelProcessing", &G::logChannelProcessing},
    {"HonourUrlPort", &G::honourUrlPort},
    {"ConnectTimeout", &G::connectTimeout, 0, 3600},
    {"StalledTransferTimeout", &G::stalledTransferTimeout, 0, 86400},
    {"MaxDownloadSizeKB", &G::maxDownloadSizeKB, 0, 4194304},
    {"MaxScriptOutputKB", &G::maxScriptOutputKB, 0, 4194304},
    {"MaxTransferTime", &G::maxTransferTime, 0, 86400},
    {"MaxWebSubscriptionsPerMinute", &G::maxWebSubscriptionsPerMinute, 1, 10000},
    {"AppServerPortNo", &G::appServerPortNo, 1000, 65535},
    {"MaxItemsPerFeed", &G::maxItemsPerFeed, 0, 100000000},
    {"MaxFeedNestingDepth", &G::maxFeedNestingDepth, 0, 100000},
    {"AcceptAtomFeeds", &G::acceptAtomFeeds},
    {"AcceptJsonFeeds", &G::acceptJsonFeeds},
    {"ConvertUnknownEncodings", &G::convertUnknownEncodings},
};

struct Reader {
    GlobalOptions& options;
    const std::string& file;
    const Option& option;
    const char* key() const { return option.readKey ? option.readKey : option.key; }
    void operator()(int G::*field) const {
        int& value = options.*field;
        value = option.minimum < option.maximum
                    ? profile::readIniIntRange(file, kSection, key(), option.minimum,
                                               option.maximum, value)
                    : profile::readIniInt(file, kSection, key(), value);
    }
    void operator()(bool G::*field) const {
        options.*field = profile::readIniBool(file, kSection, key(), options.*field);
    }
    void operator()(std::string G::*field) const {
        options.*field = profile::readIniString(file, kSection, key(), options.*field);
    }
    void operator()(ColourRef G::*field) const {
        options.*field = static_cast<ColourRef>(
            profile::readIniInt(file, kSection, key(), static_cast<int>(options.*field)));
    }
};

struct Writer {
    const GlobalOptions& options;
    const std::string& file;
    const char* key;
    void operator()(int G::*field) const {
        profile::writeIniInt(file, kSection, key, options.*field);
    }
    void operator()(bool G::*field) const {
        profile::writeIniBool(file, kSection, key, options.*field);
    }
    void operator()(std::string G::*field) const {
        profile::writeIniString(file, kSection, key, options.*field);
    }
    void operator()(ColourRef G::*field) const {
        profile::writeIniInt(file, kSection, key, static_cast<int>(options.*field));
    }
};

const char* const kScriptFileTypesSection = "Script File Types";
const char* const kAssociationsSection = "Scripting File Associations";

void loadScriptFileTypes(GlobalOptions& options, const std::string& globalIniFile) {
    const std::vector<std::string> names =
        profile::listIniKeys(globalIniFile, kScriptFileTypesSection);
    if (!names.empty()) // else the built-in list stands
        options.scriptFileTypes.clear();
    for (const std::string& name : names)
        options.scriptFileTypes.emplace_back(
            name, profile::readIniString(globalIniFile, kScriptFileTypesSection, name));
    for (const std::string& extension : profile::listIniKeys(globalIniFile, kAssociationsSection)) {
        std::string key = misc::lowered(extension);
        if (!key.empty() && key[0] != '.')
            key = "." + key;
        options.scriptFileTypeCommands[key] =
            profile::readIniString(globalIniFile, kAssociationsSection, extension);
    }
}

} // namespace

bool GlobalOptions::load(const std::string& configFile, const std::string& globalIniFile,
                         std::string* problem) {
    for (const std::string& file : {configFile, globalIniFile}) {
        const std::string reason = file.empty() ? std::string() : profile::fileProblem(file);
        if (reason.empty())
            continue;
        if (problem)
            *problem = reason;
        return false;
    }
    m_configFile = configFile;
    profile::WriteBatch snapshot(configFile);
    for (const Option& option : kOptions)
        std::visit(Reader{*this, configFile, option}, option.field);
    if (!globalIniFile.empty())
        loadScriptFileTypes(*this, globalIniFile);
    return true;
}

bool GlobalOptions::save(const std::string& configFile) const {
    profile::WriteBatch batch(configFile);
    for (const Option& option : kOptions)
        if (!option.readOnly)
            std::visit(Writer{*this, configFile, option.key}, option.field);
    return batch.commit();
}

bool GlobalOptions::saveScriptFileTypes(const std::string& globalIniFile) const {
    profile::WriteBatch batch(globalIniFile);
    // Rows the user removed must leave the file, so both sections are written afresh.
    profile::deleteIniSection(globalIniFile, kScriptFileTypesSection);
    profile::deleteIniSection(globalIniFile, kAssociationsSection);
    for (const auto& [name, extensions] : scriptFileTypes)
        profile::writeIniString(globalIniFile, kScriptFileTypesSection, name, extensions);
    for (const auto& [extension, command] : scriptFileTypeCommands)
        profile::writeIniString(globalIniFile, kAssociationsSection, extension, command);
    return batch.commit();
}

tools::NetOptions GlobalOptions::netOptions() const {
    tools::NetOptions net;
    net.honourUrlPort = honourUrlPort;
    net.connectTimeoutSeconds = connectTimeout;
    net.lowSpeedTimeSeconds = stalledTransferTimeout;
    net.maxBodyBytes = static_cast<std::uint64_t>(maxDownloadSizeKB) * 1024u;
    net.maxTransferSeconds = maxTransferTime;
    return net;
}

channels::FeedFormats GlobalOptions::feedFormats() const {
    return channels::FeedFormats{acceptAtomFeeds, acceptJsonFeeds, convertUnknownEncodings};
}

} // namespace app
