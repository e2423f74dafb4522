#include "trayClient/optionEditors.h"

#include "trayClient/uiStyle.h"

#include "trayClient/paramEditors.h"

#include <QCheckBox>
#include <QColorDialog>
#include <QComboBox>
#include <QFontDatabase>
#include <QLineEdit>
#include <QPainter>
#include <QPixmap>
#include <QSpinBox>
#include <limits>

namespace trayClient {

namespace {

using G = app::GlobalOptions;
using K = EditorKind;
using P = OptionPage;

const char* const kNoLimit = "No limit";
// The top of a plain integer option's editor: stored values are shown and kept as they are.
constexpr int kAnyInt = std::numeric_limits<int>::max();
const char* const kWindows = "Windows";
const char* const kStartUp = "Start-up";
const char* const kLogPanes = "Log panes";
const char* const kNotifications = "Notifications";
const char* const kSounds = "Sounds";
const char* const kServers = "Local servers";
const char* const kListeners = "Subscription listeners";
const char* const kScripts = "Scripts";
const char* const kDownloads = "Downloads";
const char* const kFeeds = "Feeds";
const char* const kChannelTree = "Channel tree";
const char* const kPluginTree = "Plugin tree";
const char* const kItemView = "Item view";
const char* const kCaptionBar = "Caption bar";
const char* const kActivityLog = "Activity log";
const char* const kErrorLog = "Error log";

// The bounds of bounded keys are the ones the options are loaded with; the other integers
// get bounds wide enough for any sensible value.
const OptionEditorRow kSpecs[] = {
    // General and windows.
    {"UiHandlerType", K::Choice, &G::uiHandlerType, P::General, kWindows, "Interface", 0, 1,
     "Basic|Full"},
    {"MdiTabs", K::Choice, &G::mdiTabs, P::General, kWindows, "Child windows", 0, 1,
     "Separate windows|Tabs"},
    {"OneClickMode", K::Flag, &G::oneClickMode, P::General, kWindows, "One-click mode"},
    {"MaximizeFrameWindows", K::Flag, &G::maximizeFrameWindows, P::General, kWindows,
     "Open child windows maximised"},
    {"ShowCaptionBar", K::Flag, &G::showCaptionBar, P::General, kWindows,
     "Show the caption bar over the item view"},
    {"AutoHideFeedItems", K::Flag, &G::autoHideFeedItems, P::General, kWindows,
     "Hide feed items automatically"},
    {"MaxItemViewHeight", K::Choice, &G::maxItemViewHeight, P::General, kWindows,
     "Item view height", 0, 3, "One quarter|One third|Half|Unlimited"},
    {"ShowBriefChannelSummaries", K::Flag, &G::showBriefChannelSummaries, P::General, kWindows,
     "Show brief channel summaries"},
    {"DisableAllAnimation", K::Flag, &G::disableAllAnimation, P::General, kWindows,
     "Turn off all animation"},
    {"AutoStartApp", K::Flag, &G::autoStartApp, P::General, kStartUp, "Start when I log on"},
    {"StartMinimized", K::Flag, &G::startMinimized, P::General, kStartUp,
     "Start in the tray without the main window"},
    {"HideInTaskbar", K::Flag, &G::hideInTaskbar, P::General, kStartUp,
     "Keep the main window off the task bar"},
    {"MaxActivityLogMsgs", K::Number, &G::maxActivityLogMsgs, P::General, kLogPanes,
     "Lines kept in the activity log", 0, kAnyInt},
    {"MaxErrorLogMsgs", K::Number, &G::maxErrorLogMsgs, P::General, kLogPanes,
     "Lines kept in the error log", 0, kAnyInt},
    // Notifications and sounds.
    {"NotificationBalloonDisplayTime", K::Number, &G::notificationBalloonDisplayTime,
     P::Notifications, kNotifications, "Show each notification for (seconds)", 1, 1800},
    {"NotificationBalloonPosition", K::Choice, &G::notificationBalloonPosition, P::Notifications,
     kNotifications, "Screen corner", 0, 3, "Top left|Top right|Bottom left|Bottom right"},
    {"MaxNotificationQueueLength", K::Number, &G::maxNotificationQueueLength, P::Notifications,
     kNotifications, "Longest notification queue", -1, kAnyInt, kNoLimit},
    {"NoWelcomeNotification", K::Flag, &G::noWelcomeNotification, P::Notifications, kNotifications,
     "No welcome notification at start-up"},
    {"MaxConsecutiveChannelUpdateErrors", K::Number, &G::maxConsecutiveChannelUpdateErrors,
     P::Notifications, kNotifications, "Failed updates in a row before a channel is reported", 0,
     kAnyInt},
    {"DisableAllSound", K::Flag, &G::disableAllSound, P::Notifications, kSounds,
     "Turn off all sounds"},
    {"PlaySoundOnError", K::Flag, &G::playSoundOnError, P::Notifications, kSounds,
     "Play a sound on errors"},
    {"DefaultErrorSoundFilename", K::SoundFile, &G::defaultErrorSoundFilename, P::Notifications,
     kSounds, "Error sound file"},
    // Fonts and colours, pane by pane.
    {"ControlCenterMyChannelsFontName", K::FontName, &G::controlCenterMyChannelsFontName, P::Fonts,
     kChannelTree, "Font"},
    {"ControlCenterMyChannelsFontSize", K::Number, &G::controlCenterMyChannelsFontSize, P::Fonts,
     kChannelTree, "Size", 8, 50},
    {"ControlCenterAutoUpdateChannelFgdCol", K::Colour, &G::controlCenterAutoUpdateChannelFgdCol,
     P::Fonts, kChannelTree, "Channels that update by themselves"},
    {"ControlCenterNonAutoUpdateChannelFgdCol", K::Colour,
     &G::controlCenterNonAutoUpdateChannelFgdCol, P::Fonts, kChannelTree, "Channels that don't"},
    {"ControlCenterMyChannelsBgdCol", K::Colour, &G::controlCenterMyChannelsBgdCol, P::Fonts,
     kChannelTree, "Background"},
    {"ControlCenterAppPluginsFontName", K::FontName, &G::controlCenterAppPluginsFontName, P::Fonts,
     kPluginTree, "Font"},
    {"ControlCenterAppPluginsFontSize", K::Number, &G::controlCenterAppPluginsFontSize, P::Fonts,
     kPluginTree, "Size", 8, 50},
    {"ControlCenterAppPluginsFgdCol", K::Colour, &G::controlCenterAppPluginsFgdCol, P::Fonts,
     kPluginTree, "Text"},
    {"ControlCenterAppPluginsBgdCol", K::Colour, &G::controlCenterAppPluginsBgdCol, P::Fonts,
     kPluginTree, "Background"},
    {"ChannelItemViewFontName", K::FontName, &G::channelItemViewFontName, P::Fonts, kItemView,
     "Font"},
    {"ChannelItemViewFontSize", K::Number, &G::channelItemViewFontSize, P::Fonts, kItemView, "Size",
     8, 50},
    {"ChannelItemViewNewFeedItemFgdCol", K::Colour, &G::channelItemViewNewFeedItemFgdCol, P::Fonts,
     kItemView, "New items"},
    {"ChannelItemViewViewedFeedItemFgdCol", K::Colour, &G::channelItemViewViewedFeedItemFgdCol,
     P::Fonts, kItemView, "Viewed items"},
    {"ChannelItemViewBgdCol", K::Colour, &G::channelItemViewBgdCol, P::Fonts, kItemView,
     "Background"},
    {"ItalicizeViewedFeedItems", K::Flag, &G::italicizeViewedFeedItems, P::Fonts, kItemView,
     "Viewed items in italics"},
    {"CaptionBarFontName", K::FontName, &G::captionBarFontName, P::Fonts, kCaptionBar, "Font"},
    {"CaptionBarFontSize", K::Number, &G::captionBarFontSize, P::Fonts, kCaptionBar, "Size", 8, 50},
    {"CaptionBarFgdCol", K::Colour, &G::captionBarFgdCol, P::Fonts, kCaptionBar, "Text"},
    {"CaptionBarBgdCol", K::Colour, &G::captionBarBgdCol, P::Fonts, kCaptionBar, "Background"},
    {"CaptionBarItalics", K::Flag, &G::captionBarItalics, P::Fonts, kCaptionBar, "Italics"},
    {"ActivityLogFontName", K::FontName, &G::activityLogFontName, P::Fonts, kActivityLog, "Font"},
    {"ActivityLogFontSize", K::Number, &G::activityLogFontSize, P::Fonts, kActivityLog, "Size", 8,
     50},
    {"ActivityLogFgdCol", K::Colour, &G::activityLogFgdCol, P::Fonts, kActivityLog, "Text", 0, 0,
     nullptr, true},
    {"ActivityLogBgdCol", K::Colour, &G::activityLogBgdCol, P::Fonts, kActivityLog, "Background", 0,
     0, nullptr, true},
    {"ErrorLogFontName", K::FontName, &G::errorLogFontName, P::Fonts, kErrorLog, "Font"},
    {"ErrorLogFontSize", K::Number, &G::errorLogFontSize, P::Fonts, kErrorLog, "Size", 8, 50},
    {"ErrorLogFgdCol", K::Colour, &G::errorLogFgdCol, P::Fonts, kErrorLog, "Text", 0, 0, nullptr,
     true},
    {"ErrorLogBgdCol", K::Colour, &G::errorLogBgdCol, P::Fonts, kErrorLog, "Background", 0, 0,
     nullptr, true},
    // Local listeners and ports.
    {"AppPluginServerPortNo", K::Number, &G::appPluginServerPortNo, P::Listeners, kServers,
     "Plugin server port", 1000, 65535},
    {"AppServerPortNo", K::Number, &G::appServerPortNo, P::Listeners, kServers,
     "Application server port", 1000, 65535},
    {"ListenForAmphetaDeskSubscriptions", K::Flag, &G::listenForAmphetaDeskSubscriptions,
     P::Listeners, kListeners, "Listen for AmphetaDesk subscriptions"},
    {"ListenForRadioUserlandSubscriptions", K::Flag, &G::listenForRadioUserlandSubscriptions,
     P::Listeners, kListeners, "Listen for Radio Userland subscriptions"},
    {"ListenForHeadlineViewerSubscriptions", K::Flag, &G::listenForHeadlineViewerSubscriptions,
     P::Listeners, kListeners, "Listen for Headline Viewer subscriptions"},
    {"MaxWebSubscriptionsPerMinute", K::Number, &G::maxWebSubscriptionsPerMinute, P::Listeners,
     kListeners, "Subscriptions from web pages per minute", 1, 10000},
    // Scripts, downloads and limits.
    {"ScriptTimeout", K::Number, &G::scriptTimeout, P::Scripts, kScripts,
     "Time allowed to a script (seconds)", 5, 300},
    {"MaxScriptOutputKB", K::Number, &G::maxScriptOutputKB, P::Scripts, kScripts,
     "Largest script output (KB)", 0, 4194304, kNoLimit},
    {"LogChannelProcessing", K::Flag, &G::logChannelProcessing, P::Scripts, kScripts,
     "Log each channel's processing in detail"},
    {"DisableInternet", K::Flag, &G::disableInternet, P::Scripts, kDownloads,
     "Work offline (no downloads)"},
    {"HonourUrlPort", K::Flag, &G::honourUrlPort, P::Scripts, kDownloads,
     "Use the port an address names"},
    {"ConnectTimeout", K::Number, &G::connectTimeout, P::Scripts, kDownloads,
     "Time to connect (seconds)", 0, 3600, kNoLimit},
    {"StalledTransferTimeout", K::Number, &G::stalledTransferTimeout, P::Scripts, kDownloads,
     "Time a stalled download may wait (seconds)", 0, 86400, kNoLimit},
    {"MaxTransferTime", K::Number, &G::maxTransferTime, P::Scripts, kDownloads,
     "Time a download may take (seconds)", 0, 86400, kNoLimit},
    {"MaxDownloadSizeKB", K::Number, &G::maxDownloadSizeKB, P::Scripts, kDownloads,
     "Largest download (KB)", 0, 4194304, kNoLimit},
    {"_HttpUserAgent", K::Text, &G::httpUserAgent, P::Scripts, kDownloads, "User agent", 0, 0,
     nullptr, true},
    {"MaxItemsPerFeed", K::Number, &G::maxItemsPerFeed, P::Scripts, kFeeds,
     "Most items in one feed", 0, 100000000, kNoLimit},
    {"MaxFeedNestingDepth", K::Number, &G::maxFeedNestingDepth, P::Scripts, kFeeds,
     "Deepest nesting in one feed", 0, 100000, kNoLimit},
    {"AcceptAtomFeeds", K::Flag, &G::acceptAtomFeeds, P::Scripts, kFeeds, "Read Atom feeds"},
    {"AcceptJsonFeeds", K::Flag, &G::acceptJsonFeeds, P::Scripts, kFeeds, "Read JSON feeds"},
    {"ConvertUnknownEncodings", K::Flag, &G::convertUnknownEncodings, P::Scripts, kFeeds,
     "Read feeds in other encodings (windows-1252, Shift_JIS, ...)"},
};

QString latin1(const std::string& text) { return QString::fromLatin1(text); }
std::string toLatin1(const QString& text) { return text.toLatin1().toStdString(); }

QWidget* makeNumberEditor(const OptionEditorRow& entry, QWidget* parent) {
    auto* spin = new QSpinBox(parent);
    spin->setRange(entry.minimum, entry.maximum);
    if (entry.names)
        spin->setSpecialValueText(QObject::tr(entry.names));
    return spin;
}

QWidget* makeChoiceEditor(const OptionEditorRow& entry, QWidget* parent) {
    auto* combo = new QComboBox(parent);
    for (const QString& name : QString::fromLatin1(entry.names).split(u'|'))
        combo->addItem(QObject::tr(name.toLatin1().constData()));
    return combo;
}

QWidget* makeFontNameEditor(QWidget* parent) {
    auto* combo = new QComboBox(parent);
    // Editable, so a family that is not installed keeps its stored name.
    combo->setEditable(true);
    combo->addItems(QFontDatabase::families());
    return combo;
}

// Shows an integer option in its editor, or takes it back.
struct IntAccess {
    const OptionEditorRow& entry;
    int showable(int value) const {
        if (entry.kind != K::Number && entry.kind != K::Choice)
            return value;
        if (value < entry.minimum || value > entry.maximum)
            return app::GlobalOptions{}.*std::get<int G::*>(entry.field);
        return value;
    }
    void show(QWidget* editor, int value) const {
        if (auto* spin = qobject_cast<QSpinBox*>(editor))
            spin->setValue(showable(value));
        else if (auto* combo = qobject_cast<QComboBox*>(editor))
            combo->setCurrentIndex(showable(value) - entry.minimum);
    }
    int take(const QWidget* editor) const {
        if (auto* combo = qobject_cast<const QComboBox*>(editor))
            return combo->currentIndex() + entry.minimum;
        return qobject_cast<const QSpinBox*>(editor)->value();
    }
};

QString textOf(const QWidget* editor) {
    if (auto* combo = qobject_cast<const QComboBox*>(editor))
        return combo->currentText();
    if (auto* chooser = qobject_cast<const CFileChooser*>(editor))
        return chooser->path();
    return qobject_cast<const QLineEdit*>(editor)->text();
}

void setTextOf(QWidget* editor, const QString& text) {
    if (auto* combo = qobject_cast<QComboBox*>(editor))
        combo->setCurrentText(text);
    else if (auto* chooser = qobject_cast<CFileChooser*>(editor))
        chooser->setPath(text);
    else
        qobject_cast<QLineEdit*>(editor)->setText(text);
}

} // namespace

std::span<const OptionEditorRow> optionEditorRows() { return kSpecs; }

QWidget* makeOptionEditor(const OptionEditorRow& entry, QWidget* parent) {
    QWidget* editor = nullptr;
    switch (entry.kind) {
    case K::Flag:
        editor = new QCheckBox(QObject::tr(entry.label), parent);
        break;
    case K::Number:
        editor = makeNumberEditor(entry, parent);
        break;
    case K::Choice:
        editor = makeChoiceEditor(entry, parent);
        break;
    case K::Text:
        editor = new QLineEdit(parent);
        break;
    case K::FontName:
        editor = makeFontNameEditor(parent);
        break;
    case K::Colour:
        editor = new CColourButton(parent);
        break;
    case K::SoundFile:
        editor = new CFileChooser(
            QObject::tr("Sound files (*.wav *.oga *.ogg *.flac *.mp3);;All files (*)"), {}, parent);
        break;
    }
    editor->setObjectName(QString::fromLatin1(entry.key));
    if (entry.readOnly) {
        editor->setEnabled(false);
        editor->setToolTip(QObject::tr("Set by editing config.ini only."));
    }
    return editor;
}

void showOption(const OptionEditorRow& entry, QWidget* editor, const app::GlobalOptions& options) {
    std::visit(
        [&](auto field) {
            using T = std::remove_cvref_t<decltype(options.*field)>;
            const T& value = options.*field;
            if constexpr (std::is_same_v<T, bool>)
                qobject_cast<QCheckBox*>(editor)->setChecked(value);
            else if constexpr (std::is_same_v<T, int>)
                IntAccess{entry}.show(editor, value);
            else if constexpr (std::is_same_v<T, std::string>)
                setTextOf(editor, latin1(value));
            else
                qobject_cast<CColourButton*>(editor)->setColour(fromColourRef(value));
        },
        entry.field);
}

void takeOption(const OptionEditorRow& entry, const QWidget* editor, app::GlobalOptions& options) {
    if (entry.readOnly)
        return;
    std::visit(
        [&](auto field) {
            using T = std::remove_cvref_t<decltype(options.*field)>;
            T& value = options.*field;
            if constexpr (std::is_same_v<T, bool>)
                value = qobject_cast<const QCheckBox*>(editor)->isChecked();
            else if constexpr (std::is_same_v<T, int>) {
                // A stored value the editor can't show stays unless the user changed it.
                const int shown = IntAccess{entry}.take(editor);
                if (shown != IntAccess{entry}.showable(value))
                    value = shown;
            } else if constexpr (std::is_same_v<T, std::string>)
                value = toLatin1(textOf(editor).trimmed());
            else {
                const auto shown =
                    toColourRef(qobject_cast<const CColourButton*>(editor)->colour());
                if (shown != toColourRef(fromColourRef(value)))
                    value = shown;
            }
        },
        entry.field);
}

CColourButton::CColourButton(QWidget* parent) : QPushButton(parent) {
    connect(this, &QPushButton::clicked, this, &CColourButton::choose);
    setColour(Qt::black);
}

void CColourButton::setColour(const QColor& colour) {
    const bool changed = colour != m_colour;
    m_colour = colour;
    QPixmap swatch(24, 14);
    swatch.fill(colour);
    QPainter(&swatch).drawRect(0, 0, swatch.width() - 1, swatch.height() - 1);
    setIcon(QIcon(swatch));
    setIconSize(swatch.size());
    setText(colour.name());
    if (changed)
        emit colourChanged(colour);
}

void CColourButton::choose() {
    const QColor chosen = QColorDialog::getColor(m_colour, this, tr("Choose a colour"));
    if (chosen.isValid())
        setColour(chosen);
}

} // namespace trayClient

#include "moc_optionEditors.cpp" // NOLINT(bugprone-suspicious-include)
