// The user's program-wide preferences: section "Global Options" of config.ini, and the script
// file types of global.ini.
#pragma once

#include "channels/rssParser.h"
#include "tools/net.h"

#include <map>
#include <string>
#include <vector>

namespace app {

// A colour in the 0x00BBGGRR layout: red in the low byte.
using ColourRef = unsigned int;

class GlobalOptions {
public:
    int uiHandlerType = 1;
    bool oneClickMode = true;
    int mdiTabs = 0;
    bool autoHideFeedItems = false;
    bool showCaptionBar = true;
    bool hideInTaskbar = false;
    bool maximizeFrameWindows = true;
    int notificationBalloonDisplayTime = 30;
    int notificationBalloonPosition = 3;
    bool autoStartApp = false;
    bool startMinimized = false;
    bool disableAllAnimation = false;
    bool disableAllSound = false;
    bool noWelcomeNotification = false;
    int maxNotificationQueueLength = -1;
    int maxConsecutiveChannelUpdateErrors = 3;
    bool playSoundOnError = true;
    std::string defaultErrorSoundFilename;
    bool showBriefChannelSummaries = false;
    int maxItemViewHeight = 2;
    int appPluginServerPortNo = 2605;
    bool listenForAmphetaDeskSubscriptions = false;
    bool listenForRadioUserlandSubscriptions = false;
    bool listenForHeadlineViewerSubscriptions = false;
    std::string httpUserAgent; // "_HttpUserAgent": read only
    int scriptTimeout = 15;
    std::string controlCenterMyChannelsFontName = "Arial";
    int controlCenterMyChannelsFontSize = 16;
    ColourRef controlCenterAutoUpdateChannelFgdCol = 0x800000;
    ColourRef controlCenterNonAutoUpdateChannelFgdCol = 0x808080;
    ColourRef controlCenterMyChannelsBgdCol = 0xF5FFFF;
    std::string controlCenterAppPluginsFontName = "Arial";
    int controlCenterAppPluginsFontSize = 16;
    ColourRef controlCenterAppPluginsFgdCol = 0x800000;
    ColourRef controlCenterAppPluginsBgdCol = 0xF5FFFF;
    std::string channelItemViewFontName = "Arial";
    int channelItemViewFontSize = 16;
    ColourRef channelItemViewNewFeedItemFgdCol = 0x800000;
    ColourRef channelItemViewViewedFeedItemFgdCol = 0x808080;
    ColourRef channelItemViewBgdCol = 0xF5FFFF;
    bool italicizeViewedFeedItems = true;
    std::string captionBarFontName = "Arial";
    int captionBarFontSize = 20;
    ColourRef captionBarFgdCol = 0;
    ColourRef captionBarBgdCol = 0xFAE6E6;
    bool captionBarItalics = false;
    int maxActivityLogMsgs = 1000;
    std::string activityLogFontName = "Courier New";
    int activityLogFontSize = 8;
    ColourRef activityLogFgdCol = 0;        // read only
    ColourRef activityLogBgdCol = 0xFAFAFA; // read only
    int maxErrorLogMsgs = 1000;
    std::string errorLogFontName = "Courier New";
    int errorLogFontSize = 8;
    ColourRef errorLogFgdCol = 0;        // read only
    ColourRef errorLogBgdCol = 0xFAFAFA; // read only

    // Engine switches.
    bool disableInternet = false;      // "DisableInternet"
    bool logChannelProcessing = false; // "LogChannelProcessing"

    // Download limits and rules (see tools::NetOptions).
    bool honourUrlPort = false;       // "HonourUrlPort"
    int connectTimeout = 30;          // "ConnectTimeout", seconds, 0 = none
    int stalledTransferTimeout = 120; // "StalledTransferTimeout", seconds, 0 = none
    int maxDownloadSizeKB = 65536;    // "MaxDownloadSizeKB", 0 = none
    int maxScriptOutputKB = 65536;    // "MaxScriptOutputKB", 0 = none
    int maxTransferTime = 300;        // "MaxTransferTime", seconds, 0 = none

    // Feed addresses that web pages may subscribe to per minute, over all listeners.
    int maxWebSubscriptionsPerMinute = 10; // "MaxWebSubscriptionsPerMinute"

    // What one feed may hold.
    int maxItemsPerFeed = 500000;   // "MaxItemsPerFeed", 0 = none
    int maxFeedNestingDepth = 1000; // "MaxFeedNestingDepth", 0 = none
    // What feeds may be besides RSS in the encodings expat knows.
    bool acceptAtomFeeds = false;         // "AcceptAtomFeeds"
    bool acceptJsonFeeds = false;         // "AcceptJsonFeeds"
    bool convertUnknownEncodings = false; // "ConvertUnknownEncodings"

    // The local app server's port ("/subscribe").
    int appServerPortNo = 2604; // "AppServerPortNo"

    // File extension (with its dot) to command template ("%1" the script, "%*" its
    // arguments), from global.ini; always holds ".class".
    std::map<std::string, std::string> scriptFileTypeCommands{{".class", "java %1 %*"}};
    // The named file types and their extensions, from global.ini; the built-in list when it
    // names none.
    std::vector<std::pair<std::string, std::string>> scriptFileTypes = {{"Executables", ".exe"},
                                                                        {"Python scripts", ".py"},
                                                                        {"Perl scripts", ".pl"},
                                                                        {"Java scripts", ".class"}};

    // Reads every key (missing ones keep their defaults). Returns false only when a file
    // exists but can't be read, with the reason in problem when one is given.
    bool load(const std::string& configFile, const std::string& globalIniFile,
              std::string* problem = nullptr);
    // Writes every key but the read-only ones; returns false when the file can't be written.
    bool save(const std::string& configFile) const;
    // Replaces global.ini's "Script File Types" and "Scripting File Associations" sections
    // with the record's tables, in one rewrite; returns false when the file can't be written.
    bool saveScriptFileTypes(const std::string& globalIniFile) const;

    tools::NetOptions netOptions() const;
    channels::FeedFormats feedFormats() const;

private:
    std::string m_configFile;
};

} // namespace app
