#include "trayClient/channelPropertiesDialog.h"
#include "trayClient/uiStyle.h"

#include "channels/channel.h"
#include "channels/common.h"
#include "channels/pluginChannel.h"
#include "channels/rssChannel.h"
#include "trayClient/channelDesktopSettings.h"
#include "trayClient/paramEditors.h"
#include "trayClient/soundPlayer.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDateTime>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QSpinBox>
#include <QTabWidget>
#include <QVBoxLayout>

#include <algorithm>
#include <optional>
#include <string_view>
#include <vector>

namespace trayClient {

namespace {

using C = channels::ChannelConfig;
using D = ChannelDesktopSettings;

QString latin1(const std::string& text) { return QString::fromLatin1(text); }
std::string toLatin1(const QString& text) { return text.trimmed().toLatin1().toStdString(); }

// The configuration keys every channel has, edited as text.
struct TextKey {
    const char* key;
    const char* label;
    std::string (C::*get)() const;
    void (C::*set)(const std::string&);
    bool isFile;
};
const TextKey kTextKeys[] = {
    {"PreferredChannelDisplayName", "Name", &C::preferredChannelDisplayName,
     &C::setPreferredChannelDisplayName, false},
    {"PreferredChannelDescription", "Description", &C::preferredChannelDescription,
     &C::setPreferredChannelDescription, false},
    {"PreferredChannelHomeUrl", "Home page", &C::preferredChannelHomeUrl,
     &C::setPreferredChannelHomeUrl, false},
    {"PreferredImageUrl", "Image address", &C::preferredImageUrl, &C::setPreferredImageUrl, false},
    {"ChannelSummaryTemplateFilename", "Summary page template", &C::channelSummaryTemplateFilename,
     &C::setChannelSummaryTemplateFilename, true},
    {"ChannelSummaryBackgroundFilename", "Summary page background",
     &C::channelSummaryBackgroundFilename, &C::setChannelSummaryBackgroundFilename, true},
};

// The image size: -1 (not set) to 500 pixels.
struct ImageKey {
    const char* key;
    const char* label;
    int (C::*get)() const;
    void (C::*set)(int);
};
const ImageKey kImageKeys[] = {
    {"PreferredImageWidth", "Image width", &C::preferredImageWidth, &C::setPreferredImageWidth},
    {"PreferredImageHeight", "Image height", &C::preferredImageHeight, &C::setPreferredImageHeight},
};

struct DesktopFlag {
    const char* key;
    const char* label;
    bool D::*field;
};
const DesktopFlag kDesktopFlags[] = {
    {"NotifyOnNewItem", "Show a notification for new items", &D::notifyOnNewItem},
    {"ConsolidateMultipleItems", "One notification for the new items of one update",
     &D::consolidateMultipleItems},
    {"AnimateOnNewItem", "Animate the tray icon on new items", &D::animateOnNewItem},
    {"PlaySoundOnNewItem", "Play a sound for new items", &D::playSoundOnNewItem},
    {"UseQuickAccessMenu", "List the channel in the tray's quick-access menu",
     &D::useQuickAccessMenu},
    {"UseQuickAccessSubMenus", "Give it a sub-menu of its items there", &D::useQuickAccessSubMenus},
};

// The units the update interval is entered in, largest first.
struct IntervalUnit {
    const char* name;
    std::int32_t seconds;
};
const IntervalUnit kUnits[] = {{"days", 86400}, {"hours", 3600}, {"minutes", 60}, {"seconds", 1}};

// The feed's own title: Channel::name() would read the feed in memory without the lock the
// worker takes to replace it.
std::string feedTitle(const channels::Channel& channel) {
    if (const auto fetched = channel.state().fetchedFeedChannel())
        if (!fetched->channelDisplayName.empty())
            return fetched->channelDisplayName;
    return channel.config().cache().channelDisplayName;
}

QScrollArea* scrolled(QWidget* page) {
    auto* scroll = new QScrollArea;
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidget(page);
    return scroll;
}

QLabel* statusLabel(const QString& text, const char* name, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    label->setObjectName(QString::fromLatin1(name));
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    label->setWordWrap(true);
    return label;
}

} // namespace

CChannelPropertiesDialog::CChannelPropertiesDialog(channels::Channel& channel,
                                                   ChannelDesktopSettingsTable& settings,
                                                   QWidget* parent, QString lastError)
    : QDialog(parent), m_channel(channel), m_settings(settings),
      m_isPlugin(dynamic_cast<channels::PluginChannel*>(&channel) != nullptr),
      m_error(new QLabel(this)), m_sound(std::make_unique<CSoundPlayer>()) {
    std::string name = channel.config().preferredChannelDisplayName();
    if (name.empty())
        name = feedTitle(channel);
    setWindowTitle(tr("Properties of %1").arg(latin1(name.empty() ? channel.id() : name)));
    auto* tabs = new QTabWidget(this);
    tabs->addTab(scrolled(makeChannelPage()), tr("Channel"));
    tabs->addTab(makeDesktopPage(), tr("Desktop"));
    tabs->addTab(makeStatusPage(lastError), tr("Status"));

    layOutEditDialog(*this, tabs, *m_error);
}

CChannelPropertiesDialog::~CChannelPropertiesDialog() = default;

QWidget* CChannelPropertiesDialog::makeChannelPage() {
    auto* page = new QWidget;
    auto* layout = new QVBoxLayout(page);
    auto* form = new QFormLayout;
    layout->addLayout(form);
    if (m_isPlugin) {
        m_script = new CFileChooser(tr("All files (*)"), {}, page);
        m_script->setObjectName(QStringLiteral("ScriptFilename"));
        m_script->setPath(latin1(m_channel.address()));
        form->addRow(tr("Plugin script:"), m_script);
    } else {
        m_source = new QLineEdit(latin1(m_channel.address()), page);
        m_source->setObjectName(QStringLiteral("RssChannelUrl"));
        form->addRow(tr("Address:"), m_source);
    }
    const C& config = m_channel.config();
    for (const TextKey& key : kTextKeys) {
        QWidget* editor = nullptr;
        if (key.isFile) {
            auto* chooser = new CFileChooser(tr("All files (*)"), {}, page);
            chooser->setPath(latin1((config.*key.get)()));
            editor = chooser;
        } else {
            editor = new QLineEdit(latin1((config.*key.get)()), page);
        }
        if (std::string_view(key.key) == "PreferredChannelDisplayName")
            qobject_cast<QLineEdit*>(editor)->setPlaceholderText(latin1(feedTitle(m_channel)));
        editor->setObjectName(QString::fromLatin1(key.key));
        form->addRow(tr(key.label) + u':', editor);
    }
    for (const ImageKey& key : kImageKeys) {
        auto* spin = new QSpinBox(page);
        spin->setObjectName(QString::fromLatin1(key.key));
        spin->setRange(-1, 500);
        spin->setSpecialValueText(tr("Not set"));
        spin->setValue((config.*key.get)());
        form->addRow(tr(key.label) + u':', spin);
    }
    auto* force = new QCheckBox(tr("Always download, even when the source says nothing changed"));
    force->setObjectName(QStringLiteral("ForceNetDownloads"));
    force->setChecked(config.forceNetDownloads());
    form->addRow(force);
    layout->addWidget(makeSettingsGroup(page));
    if (m_isPlugin)
        layout->addWidget(makePluginParameters(page));
    layout->addStretch();
    return page;
}

QWidget* CChannelPropertiesDialog::makeSettingsGroup(QWidget* parent) {
    auto* box = new QGroupBox(tr("Updates"), parent);
    auto* form = new QFormLayout(box);
    const channels::ChannelSettings& settings = m_channel.settings();
    auto* autoUpdate = new QCheckBox(tr("Update automatically"), box);
    autoUpdate->setObjectName(QStringLiteral("IsAutoUpdateEnabled"));
    autoUpdate->setChecked(settings.isAutoUpdateEnabled());
    form->addRow(autoUpdate);

    m_intervalCount = new QSpinBox(box);
    m_intervalCount->setObjectName(QStringLiteral("AutoUpdateInterval"));
    m_intervalCount->setRange(1, 999999);
    m_intervalUnit = new QComboBox(box);
    m_intervalUnit->setObjectName(QStringLiteral("AutoUpdateIntervalUnit"));
    const std::int32_t seconds = settings.storedAutoUpdateInterval();
    int unit = 0;
    for (const IntervalUnit& each : kUnits)
        m_intervalUnit->addItem(tr(each.name));
    // The largest unit the interval is a whole number of.
    while (seconds > 0 && seconds % kUnits[unit].seconds != 0)
        ++unit;
    m_intervalUnit->setCurrentIndex(unit);
    m_intervalCount->setValue(seconds > 0 ? seconds / kUnits[unit].seconds : 0);
    auto* every = new QWidget(box);
    auto* row = new QHBoxLayout(every);
    row->setContentsMargins(0, 0, 0, 0);
    row->addWidget(m_intervalCount);
    row->addWidget(m_intervalUnit);
    row->addStretch();
    form->addRow(tr("Every:"), every);
    connect(autoUpdate, &QCheckBox::toggled, every, &QWidget::setEnabled);
    every->setEnabled(autoUpdate->isChecked());

    auto* allowEmpty = new QCheckBox(tr("Accept a feed without items"), box);
    allowEmpty->setObjectName(QStringLiteral("AllowEmptyFeeds"));
    allowEmpty->setChecked(settings.allowEmptyFeeds());
    form->addRow(allowEmpty);
    auto* maxItems = new QSpinBox(box);
    maxItems->setObjectName(QStringLiteral("MaxFeedItems"));
    maxItems->setRange(-1, 100);
    maxItems->setSpecialValueText(tr("No limit"));
    maxItems->setValue(settings.maxFeedItems());
    form->addRow(tr("Items kept from a feed:"), maxItems);
    return box;
}

QWidget* CChannelPropertiesDialog::makePluginParameters(QWidget* parent) {
    auto* box = new QGroupBox(tr("Parameters"), parent);
    auto* layout = new QVBoxLayout(box);
    const auto& plugin = static_cast<const channels::PluginChannel&>(m_channel);
    channels::ParamDefTable channelDefs, pluginDefs;
    channels::ParamValues channelValues, pluginValues;
    try {
        channels::loadParamDefTable(plugin.pluginFileName(), channelDefs,
                                    "ChannelParameterDefinition-");
        channels::loadParamDefTable(plugin.pluginFileName(), pluginDefs,
                                    "PluginParameterDefinition-");
    } catch (const channels::Exception& error) {
        layout->addWidget(new QLabel(
            tr("The plugin's parameters can't be read: %1").arg(latin1(error.what())), box));
        return box;
    }
    channels::loadParamValues(m_channel.fileName(), channels::kChannelParametersSection,
                              channelDefs, channelValues);
    channels::loadParamValues(m_channel.fileName(), channels::kPluginParametersSection, pluginDefs,
                              pluginValues);
    m_channelParams = new CParamForm(channelDefs, channelValues, box);
    m_pluginParams = new CParamForm(pluginDefs, pluginValues, box);
    if (m_channelParams->isEmpty() && m_pluginParams->isEmpty())
        layout->addWidget(new QLabel(tr("The plugin has no parameters."), box));
    layout->addWidget(m_channelParams);
    layout->addWidget(m_pluginParams);
    return box;
}

QWidget* CChannelPropertiesDialog::makeDesktopPage() {
    auto* page = new QWidget;
    auto* form = new QFormLayout(page);
    const ChannelDesktopSettings desktop = m_settings.get(m_channel.id());
    for (const DesktopFlag& flag : kDesktopFlags) {
        auto* box = new QCheckBox(tr(flag.label), page);
        box->setObjectName(QString::fromLatin1(flag.key));
        box->setChecked(desktop.*flag.field);
        form->addRow(box);
    }
    auto* quickAccess = page->findChild<QCheckBox*>(QStringLiteral("UseQuickAccessMenu"));
    auto* subMenus = page->findChild<QCheckBox*>(QStringLiteral("UseQuickAccessSubMenus"));
    connect(quickAccess, &QCheckBox::toggled, subMenus, &QWidget::setEnabled);
    subMenus->setEnabled(quickAccess->isChecked());

    auto* sound = new QWidget(page);
    auto* row = new QHBoxLayout(sound);
    row->setContentsMargins(0, 0, 0, 0);
    m_soundFile = new CFileChooser(
        tr("Sound files (*.wav *.oga *.ogg *.flac *.mp3);;All files (*)"), {}, sound);
    m_soundFile->setObjectName(QStringLiteral("NewItemSoundFile"));
    m_soundFile->setPath(latin1(desktop.newItemSoundFile));
    row->addWidget(m_soundFile, 1);
    auto* play = new QPushButton(tr("Play"), sound);
    connect(play, &QPushButton::clicked, this, &CChannelPropertiesDialog::playNewItemSound);
    row->addWidget(play);
    form->addRow(tr("Sound file:"), sound);
    return page;
}

QWidget* CChannelPropertiesDialog::makeStatusPage(const QString& lastError) {
    auto* page = new QWidget;
    auto* form = new QFormLayout(page);
    const channels::ChannelState& state = m_channel.state();
    const std::int32_t fetched = state.lastFetchTime();
    const QString never = tr("Never");
    form->addRow(tr("Last fetch:"),
                 statusLabel(fetched ? QDateTime::fromSecsSinceEpoch(fetched).toString() : never,
                             "LastFetchTime", page));
    const auto orNone = [](const std::string& text) {
        return text.empty() ? tr("None") : latin1(text);
    };
    form->addRow(tr("Last-Modified:"),
                 statusLabel(orNone(state.httpLastModified()), "HttpLastModified", page));
    form->addRow(tr("ETag:"), statusLabel(orNone(state.httpETag()), "HttpETag", page));
    form->addRow(tr("Items:"), statusLabel(QString::number(state.itemCount()), "ItemCount", page));
    form->addRow(tr("File:"),
                 statusLabel(QString::fromLocal8Bit(m_channel.fileName().c_str()), "File", page));
    if (const auto* rss = dynamic_cast<const channels::RssChannel*>(&m_channel);
        rss && rss->config().subscribedFromWebPage())
        form->addRow(statusLabel(tr("Added from a web page: its downloads may reach only other "
                                    "computers."),
                                 "SubscribedFromWebPage", page));
    if (!lastError.isEmpty())
        form->addRow(tr("Last error:"), statusLabel(lastError, "LastError", page));
    return page;
}

std::int32_t CChannelPropertiesDialog::interval() const {
    const std::int64_t seconds = static_cast<std::int64_t>(m_intervalCount->value()) *
                                 kUnits[m_intervalUnit->currentIndex()].seconds;
    return static_cast<std::int32_t>(std::min<std::int64_t>(seconds, INT32_MAX));
}

QString CChannelPropertiesDialog::validate() const {
    if (m_source && m_source->text().trimmed().isEmpty())
        return tr("Please enter the channel's address.");
    if (m_script && m_script->path().trimmed().isEmpty())
        return tr("Please choose the channel's plugin script.");
    if (interval() < kMinimumInterval || interval() > kMaximumInterval)
        return tr("The update interval must be between 1 minute and 365 days.");
    return {};
}

void CChannelPropertiesDialog::playNewItemSound() {
    const std::string file = toLatin1(m_soundFile->path());
    m_sound->play(file.empty() ? SoundChoice{SoundChoice::Kind::Event, "message-new-instant"}
                               : SoundChoice{SoundChoice::Kind::File, file});
}

void CChannelPropertiesDialog::applySource() {
    const std::string source = m_isPlugin ? toLatin1(m_script->path()) : toLatin1(m_source->text());
    m_sourceChanged = source != m_channel.address();
    if (auto* plugin = dynamic_cast<channels::PluginChannel*>(&m_channel))
        plugin->config().setScriptFilename(source);
    else if (auto* rss = dynamic_cast<channels::RssChannel*>(&m_channel))
        rss->config().setRssChannelUrl(source);
    if (m_sourceChanged) {
        // The old source's validators could make the new one answer "not modified".
        m_channel.state().setHttpLastModified({});
        m_channel.state().setHttpETag({});
    }
}

void CChannelPropertiesDialog::applyConfigAndSettings() {
    const auto text = [this](const char* name) {
        const QWidget* editor = findChild<QWidget*>(QString::fromLatin1(name));
        if (const auto* chooser = qobject_cast<const CFileChooser*>(editor))
            return toLatin1(chooser->path());
        return toLatin1(qobject_cast<const QLineEdit*>(editor)->text());
    };
    const auto checked = [this](const char* name) {
        return findChild<QCheckBox*>(QString::fromLatin1(name))->isChecked();
    };
    C& config = m_channel.config();
    for (const TextKey& key : kTextKeys)
        (config.*key.set)(text(key.key));
    for (const ImageKey& key : kImageKeys)
        (config.*key.set)(findChild<QSpinBox*>(QString::fromLatin1(key.key))->value());
    config.setForceNetDownloads(checked("ForceNetDownloads"));
    channels::ChannelSettings& settings = m_channel.settings();
    settings.setAutoUpdateEnabled(checked("IsAutoUpdateEnabled"));
    settings.setAutoUpdateInterval(interval());
    settings.setAllowEmptyFeeds(checked("AllowEmptyFeeds"));
    settings.setMaxFeedItems(findChild<QSpinBox*>(QStringLiteral("MaxFeedItems"))->value());
}

QString CChannelPropertiesDialog::writeChannel() {
    // The worker reads and saves the channel under its lock too: the edits and the save of
    // the file are one step for it.
    threadSafety::ScopedLock lock(m_channel.lock());
    applySource();
    applyConfigAndSettings();
    try {
        m_channel.save();
        const std::string file = m_channel.fileName();
        if (m_channelParams)
            channels::saveParamValues(file, channels::kChannelParametersSection,
                                      m_channelParams->values());
        if (m_pluginParams)
            channels::saveParamValues(file, channels::kPluginParametersSection,
                                      m_pluginParams->values());
    } catch (const channels::Exception& error) {
        return tr("Couldn't save the channel: %1").arg(latin1(error.what()));
    }
    return {};
}

QString CChannelPropertiesDialog::writeDesktopSettings() {
    std::vector<std::pair<bool D::*, bool>> flags;
    for (const DesktopFlag& flag : kDesktopFlags)
        flags.emplace_back(flag.field,
                           findChild<QCheckBox*>(QString::fromLatin1(flag.key))->isChecked());
    const std::string soundFile = toLatin1(m_soundFile->path());
    m_settings.change(m_channel.id(), [&](ChannelDesktopSettings& desktop) {
        for (const auto& [field, value] : flags)
            desktop.*field = value;
        desktop.newItemSoundFile = soundFile;
    });
    std::string problem;
    if (!m_settings.save(m_channel.id(), std::nullopt, &problem))
        return tr("Couldn't save the desktop settings: %1").arg(latin1(problem));
    return {};
}

QString CChannelPropertiesDialog::errorText() const { return m_error->text(); }

void CChannelPropertiesDialog::showError(const QString& text) {
    m_error->setText(text);
    m_error->setVisible(!text.isEmpty());
}

void CChannelPropertiesDialog::accept() {
    QString problem = validate();
    if (problem.isEmpty())
        problem = writeChannel();
    if (problem.isEmpty())
        problem = writeDesktopSettings();
    showError(problem);
    if (problem.isEmpty())
        QDialog::accept();
}

} // namespace trayClient

#include "moc_channelPropertiesDialog.cpp" // NOLINT(bugprone-suspicious-include)
