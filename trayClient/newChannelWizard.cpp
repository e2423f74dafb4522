#include "trayClient/newChannelWizard.h"

#include "app/channelCommands.h"
#include "app/environment.h"
#include "app/subscriptions.h"
#include "channels/channelManager.h"
#include "channels/channelSettings.h"
#include "channels/internal/paramDefs.h"
#include "trayClient/channelDesktopSettings.h"

#include <QButtonGroup>
#include <QCheckBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QSpinBox>
#include <QVBoxLayout>
#include <QWizardPage>

#include <filesystem>

namespace trayClient {

namespace {

QString fromEngine(const std::string& text) { return QString::fromLatin1(text); }
std::string toEngine(const QString& text) { return text.toLatin1().toStdString(); }

// The editor of one plugin parameter and its value: plain line edits until typed editors take
// their place here.
QWidget* makeParamEditor(const channels::ParamDef& definition, QWidget* parent) {
    auto* edit = new QLineEdit(fromEngine(definition.defaultValue), parent);
    edit->setToolTip(fromEngine(definition.description));
    return edit;
}
QString paramEditorValue(const QWidget* editor) {
    const auto* edit = qobject_cast<const QLineEdit*>(editor);
    return edit ? edit->text() : QString();
}

} // namespace

// --- the preview runner -----------------------------------------------------------------

CPreviewRunner::CPreviewRunner(app::PreviewOptions options, QObject* parent)
    : QObject(parent), m_options(std::move(options)),
      m_previewer(std::make_shared<app::FeedPreviewer>(m_options)) {}

void CPreviewRunner::setFeedFormats(const channels::FeedFormats& formats) {
    // A previewer's options are fixed while its threads run, so later previews get a new one.
    m_options.manager.feedFormats = formats;
    m_previewer->abort();
    m_previewer = std::make_shared<app::FeedPreviewer>(m_options);
}

CPreviewRunner::~CPreviewRunner() {
    // A preview waiting for the network ends at once; none outlives the runner.
    m_previewer->abort();
    for (Job& job : m_jobs)
        job.thread.join();
}

void CPreviewRunner::start(const QString& address) {
    const unsigned request = ++m_request;
    m_running = true;
    std::erase_if(m_jobs, [](Job& job) {
        if (!job.done->load())
            return false;
        job.thread.join();
        return true;
    });
    auto done = std::make_shared<std::atomic<bool>>(false);
    std::thread thread([this, request, done, address = toEngine(address), previewer = m_previewer] {
        app::FeedPreview preview = previewer->preview(address);
        QMetaObject::invokeMethod(
            this, [this, request, preview] { deliver(request, preview); }, Qt::QueuedConnection);
        *done = true;
    });
    m_jobs.push_back({std::move(thread), std::move(done)});
}

void CPreviewRunner::deliver(unsigned request, const app::FeedPreview& preview) {
    if (request != m_request)
        return; // a newer request is under way
    m_running = false;
    emit finished(preview);
}

// --- the pages ----------------------------------------------------------------------------

class CSourcePage : public QWizardPage {
public:
    explicit CSourcePage(CNewChannelWizard& wizard) : m_wizard(wizard) {
        setTitle(tr("Where does the channel come from?"));
        auto* layout = new QVBoxLayout(this);
        const char* names[] = {"kindAddress", "kindFile", "kindPlugin"};
        const QString labels[] = {tr("A feed's web address"), tr("A local feed file"),
                                  tr("A channel plugin script")};
        for (int kind = 0; kind < 3; ++kind) {
            auto* button = new QRadioButton(labels[kind], this);
            button->setObjectName(names[kind]);
            m_kinds.addButton(button, kind);
            layout->addWidget(button);
        }
        m_kinds.button(0)->setChecked(true);
        auto* row = new QHBoxLayout;
        m_source.setObjectName("source");
        m_source.setPlaceholderText("https://example.org/feed.xml");
        m_browse.setText(tr("Browse..."));
        row->addWidget(&m_source);
        row->addWidget(&m_browse);
        layout->addLayout(row);
        layout->addLayout(&m_parameters);
        m_problem.setObjectName("sourceProblem");
        layout->addWidget(&m_problem);
        connect(&m_source, &QLineEdit::textChanged, this, &QWizardPage::completeChanged);
        connect(&m_source, &QLineEdit::editingFinished, this, [this] { loadParameters(); });
        connect(&m_browse, &QPushButton::clicked, this, [this] { browse(); });
        connect(&m_kinds, &QButtonGroup::idClicked, this, [this] { kindChanged(); });
        kindChanged();
        // The address is what a person types first.
        setFocusProxy(&m_source);
        m_source.setFocus();
    }

    CNewChannelWizard::SourceKind kind() const {
        return static_cast<CNewChannelWizard::SourceKind>(m_kinds.checkedId());
    }
    void setAddress(const QString& address) {
        m_kinds.button(0)->setChecked(true);
        kindChanged();
        m_source.setText(address);
    }
    QString source() const;
    // The plugin's channel parameters as the user set them.
    std::vector<std::pair<std::string, std::string>> parameters() const {
        std::vector<std::pair<std::string, std::string>> values;
        for (const auto& [name, editor] : m_editors)
            values.emplace_back(name, toEngine(paramEditorValue(editor)));
        return values;
    }
    bool isComplete() const override { return !m_source.text().trimmed().isEmpty(); }
    bool validatePage() override;
    int nextId() const override {
        return kind() == CNewChannelWizard::SourceKind::Plugin ? CNewChannelWizard::ChannelPageId
                                                               : CNewChannelWizard::PreviewPageId;
    }

private:
    void kindChanged() {
        m_browse.setEnabled(kind() != CNewChannelWizard::SourceKind::Address);
        loadParameters();
    }
    void browse() {
        const bool plugin = kind() == CNewChannelWizard::SourceKind::Plugin;
        const QString directory =
            plugin ? fromEngine(m_wizard.m_environment.paths.appPluginsDir) : QString();
        const QString file = QFileDialog::getOpenFileName(
            this, plugin ? tr("Channel plugin script") : tr("Feed file"), directory);
        if (file.isEmpty())
            return;
        m_source.setText(file);
        loadParameters();
    }
    void loadParameters();

    CNewChannelWizard& m_wizard;
    QButtonGroup m_kinds;
    QLineEdit m_source;
    QPushButton m_browse;
    QFormLayout m_parameters;
    QLabel m_problem;
    std::vector<std::pair<std::string, QWidget*>> m_editors;
};

QString CSourcePage::source() const {
    const QString text = m_source.text().trimmed();
    namespace fs = std::filesystem;
    switch (kind()) {
    case CNewChannelWizard::SourceKind::Address:
        // A path typed or dropped as an address is a local file, not a host.
        if (text.startsWith('/') && fs::exists(toEngine(text)))
            return text;
        return fromEngine(app::feedAddress(toEngine(text)));
    case CNewChannelWizard::SourceKind::File:
        return fromEngine(fs::absolute(toEngine(text)).lexically_normal().string());
    case CNewChannelWizard::SourceKind::Plugin:
        break;
    }
    // A script's name alone is looked for among the program's plugins.
    if (const fs::path script = toEngine(text); fs::exists(script))
        return fromEngine(fs::absolute(script).lexically_normal().string());
    return fromEngine(
        (fs::path(m_wizard.m_environment.paths.appPluginsDir) / toEngine(text)).string());
}

bool CSourcePage::validatePage() {
    m_problem.clear();
    if (kind() == CNewChannelWizard::SourceKind::Plugin &&
        !std::filesystem::exists(toEngine(source())))
        m_problem.setText(tr("Can't find the plugin script: %1").arg(m_source.text()));
    return m_problem.text().isEmpty();
}

void CSourcePage::loadParameters() {
    while (m_parameters.rowCount() > 0)
        m_parameters.removeRow(0);
    m_editors.clear();
    if (kind() != CNewChannelWizard::SourceKind::Plugin || m_source.text().trimmed().isEmpty())
        return;
    channels::ParamDefTable definitions;
    try {
        const std::string description =
            std::filesystem::path(toEngine(source())).replace_extension(".plugin").string();
        channels::loadParamDefTable(description, definitions, "ChannelParameterDefinition-");
    } catch (const std::exception& failure) {
        m_problem.setText(fromEngine(failure.what()));
        return;
    }
    for (const auto& definition : definitions) {
        QWidget* editor = makeParamEditor(*definition, this);
        editor->setObjectName(fromEngine("param-" + definition->name));
        m_parameters.addRow(fromEngine(definition->name), editor);
        m_editors.emplace_back(definition->name, editor);
    }
}

class CPreviewPage : public QWizardPage {
public:
    explicit CPreviewPage(CNewChannelWizard& wizard) : m_wizard(wizard) {
        setTitle(tr("Preview"));
        auto* layout = new QVBoxLayout(this);
        m_busy.setRange(0, 0); // moves without a known end
        m_title.setObjectName("previewTitle");
        m_items.setObjectName("previewItems");
        m_error.setObjectName("previewError");
        m_error.setWordWrap(true);
        m_error.setTextInteractionFlags(Qt::TextSelectableByMouse);
        m_links.setObjectName("feedLinks");
        m_turnOn.setObjectName("turnOnFormat");
        for (QWidget* widget : std::initializer_list<QWidget*>{
                 &m_busy, &m_title, &m_items, &m_error, &m_turnOn, &m_linksLabel, &m_links})
            layout->addWidget(widget);
        m_turnOn.hide();
        connect(&m_turnOn, &QPushButton::clicked, this, [this] { m_wizard.turnOnFormatOption(); });
        m_linksLabel.setText(tr("This page is not a feed, but it offers these feeds:"));
        connect(&m_links, &QListWidget::itemActivated, this,
                [this](QListWidgetItem* item) { m_wizard.chooseFeedLink(m_links.row(item)); });
    }
    void initializePage() override {
        m_links.clear(); // a new source: the links of an earlier page go
        m_wizard.startPreview(m_wizard.source());
    }
    bool isComplete() const override {
        return !m_wizard.isPreviewRunning() && !m_wizard.m_previewedAddress.isEmpty() &&
               m_wizard.m_preview.isFeed();
    }
    void showRunning(const QString& address) {
        m_busy.show();
        m_title.setText(tr("Fetching %1 ...").arg(address));
        for (QWidget* widget : std::initializer_list<QWidget*>{&m_items, &m_error, &m_turnOn})
            widget->hide();
        m_links.setVisible(m_links.count() > 0); // a page's list stays while one of it is fetched
        m_linksLabel.setVisible(m_links.count() > 0);
        emit completeChanged();
    }
    void showResult(const app::FeedPreview& preview);

private:
    CNewChannelWizard& m_wizard;
    QProgressBar m_busy;
    QLabel m_title;
    QListWidget m_items;
    QLabel m_error;
    QPushButton m_turnOn;
    QLabel m_linksLabel;
    QListWidget m_links;
};

void CPreviewPage::showResult(const app::FeedPreview& preview) {
    m_busy.hide();
    m_items.clear();
    m_title.setText(fromEngine(preview.channel.channelDisplayName));
    for (const channels::FeedItem& item : preview.items)
        m_items.addItem(fromEngine(item.title));
    m_items.setVisible(preview.isFeed());
    m_error.setText(fromEngine(preview.error));
    m_error.setVisible(!preview.isFeed() && preview.links.empty());
    // The feed is one the parser reads only with an option on: offer to turn it on.
    m_turnOn.setText(preview.formatOption == "AcceptJsonFeeds" ? tr("Read JSON feeds from now on")
                                                               : tr("Read Atom feeds from now on"));
    m_turnOn.setVisible(!preview.formatOption.empty());
    if (!preview.formatOption.empty())
        m_error.setText(
            fromEngine(preview.error) + "\n" +
            tr("This is %1 feed, which is read only with the option \"%2\" on.")
                .arg(preview.formatOption == "AcceptJsonFeeds" ? tr("a JSON") : tr("an Atom"),
                     fromEngine(preview.formatOption)));
    if (!preview.links.empty()) { // a feed chosen from the page keeps the page's list
        m_links.clear();
        for (const app::FeedLink& link : preview.links)
            m_links.addItem(
                fromEngine(link.title.empty() ? link.address : link.title + " - " + link.address));
    }
    m_links.setVisible(m_links.count() > 0);
    m_linksLabel.setVisible(m_links.count() > 0);
    emit completeChanged();
}

class CChannelPage : public QWizardPage {
public:
    explicit CChannelPage(CNewChannelWizard& wizard) : m_wizard(wizard) {
        setTitle(tr("The channel"));
        auto* layout = new QFormLayout(this);
        m_name.setObjectName("channelName");
        m_id.setObjectName("channelId");
        m_interval.setObjectName("interval");
        m_autoUpdate.setObjectName("autoUpdate");
        m_problem.setObjectName("idProblem");
        m_interval.setRange(0, 60 * 24 * 7);
        m_interval.setSuffix(tr(" min"));
        layout->addRow(tr("Name:"), &m_name);
        layout->addRow(tr("ID:"), &m_id);
        layout->addRow(tr("Update every:"), &m_interval);
        layout->addRow(QString(), &m_autoUpdate);
        layout->addRow(QString(), &m_problem);
        m_autoUpdate.setText(tr("Update automatically"));
        channels::ChannelSettings defaults;
        m_interval.setValue(defaults.autoUpdateInterval() / 60);
        m_autoUpdate.setChecked(defaults.isAutoUpdateEnabled());
        connect(&m_id, &QLineEdit::textChanged, this, [this] {
            m_problem.setText(m_wizard.idProblem(m_id.text()));
            emit completeChanged();
        });
    }
    void initializePage() override {
        const bool plugin = m_wizard.sourceKind() == CNewChannelWizard::SourceKind::Plugin;
        m_name.setText(plugin ? QString()
                              : fromEngine(m_wizard.m_preview.channel.channelDisplayName));
        const QString address = plugin ? m_wizard.source() : m_wizard.m_previewedAddress;
        m_id.setText(fromEngine(app::channelIdFromAddress(toEngine(address), m_wizard.m_manager)));
    }
    bool isComplete() const override { return m_wizard.idProblem(m_id.text()).isEmpty(); }

    QLineEdit m_name;
    QLineEdit m_id;
    QSpinBox m_interval;
    QCheckBox m_autoUpdate;
    QLabel m_problem;

private:
    CNewChannelWizard& m_wizard;
};

class CDesktopPage : public QWizardPage {
public:
    CDesktopPage() {
        setTitle(tr("When new items arrive"));
        auto* layout = new QVBoxLayout(this);
        const ChannelDesktopSettings defaults;
        const std::pair<QCheckBox*, bool> boxes[] = {
            {&m_notify, defaults.notifyOnNewItem},
            {&m_sound, defaults.playSoundOnNewItem},
            {&m_animate, defaults.animateOnNewItem},
            {&m_consolidate, defaults.consolidateMultipleItems},
            {&m_quickAccess, defaults.useQuickAccessMenu}};
        const QString texts[] = {tr("Show a notification"), tr("Play a sound"),
                                 tr("Animate the tray icon"),
                                 tr("Show several new items as one notification"),
                                 tr("List the channel in the quick-access menu")};
        const char* names[] = {"notify", "sound", "animate", "consolidate", "quickAccess"};
        for (int i = 0; i < 5; ++i) {
            boxes[i].first->setText(texts[i]);
            boxes[i].first->setChecked(boxes[i].second);
            boxes[i].first->setObjectName(names[i]);
            layout->addWidget(boxes[i].first);
        }
    }
    void applyTo(ChannelDesktopSettings& settings) const {
        settings.notifyOnNewItem = m_notify.isChecked();
        settings.playSoundOnNewItem = m_sound.isChecked();
        settings.animateOnNewItem = m_animate.isChecked();
        settings.consolidateMultipleItems = m_consolidate.isChecked();
        settings.useQuickAccessMenu = m_quickAccess.isChecked();
    }

private:
    QCheckBox m_notify, m_sound, m_animate, m_consolidate, m_quickAccess;
};

// --- the wizard ---------------------------------------------------------------------------

namespace {

app::PreviewOptions previewOptions(const app::Environment& environment) {
    app::PreviewOptions options;
    options.manager = app::managerOptions(environment.options);
    options.userAgent = app::userAgent(environment.options);
    return options;
}

} // namespace

CNewChannelWizard::CNewChannelWizard(channels::ChannelManager& manager,
                                     ChannelDesktopSettingsTable& settings,
                                     app::Environment& environment, QWidget* parent,
                                     const QString& address)
    : QWizard(parent), m_manager(manager), m_settings(settings), m_environment(environment),
      m_runner(new CPreviewRunner(previewOptions(environment), this)),
      m_sourcePage(new CSourcePage(*this)), m_previewPage(new CPreviewPage(*this)),
      m_channelPage(new CChannelPage(*this)), m_desktopPage(new CDesktopPage) {
    setWindowTitle(tr("New channel"));
    setPage(SourcePageId, m_sourcePage);
    setPage(PreviewPageId, m_previewPage);
    setPage(ChannelPageId, m_channelPage);
    setPage(DesktopPageId, m_desktopPage);
    connect(m_runner, &CPreviewRunner::finished, this,
            [this](const app::FeedPreview& preview) { onPreview(preview); });
    if (!address.isEmpty())
        m_sourcePage->setAddress(address);
}

CNewChannelWizard::~CNewChannelWizard() = default;

void CNewChannelWizard::setAddress(const QString& address) {
    while (currentId() != SourcePageId && currentId() != -1)
        back();
    m_sourcePage->setAddress(address);
}

QString CNewChannelWizard::source() const { return m_sourcePage->source(); }

CNewChannelWizard::SourceKind CNewChannelWizard::sourceKind() const { return m_sourcePage->kind(); }

void CNewChannelWizard::startPreview(const QString& address) {
    m_previewedAddress = address;
    m_previewPage->showRunning(address);
    m_runner->start(address);
}

void CNewChannelWizard::onPreview(const app::FeedPreview& preview) {
    m_preview = preview;
    m_previewPage->showResult(preview);
    emit previewFinished();
}

bool CNewChannelWizard::turnOnFormatOption() {
    app::GlobalOptions& options = m_environment.options;
    const std::string& key = m_preview.formatOption;
    if (key.empty())
        return false;
    (key == "AcceptJsonFeeds" ? options.acceptJsonFeeds : options.acceptAtomFeeds) = true;
    if (!options.save(m_environment.paths.configFile)) {
        (key == "AcceptJsonFeeds" ? options.acceptJsonFeeds : options.acceptAtomFeeds) = false;
        m_preview.error = "Can't save the global options: " + m_environment.paths.configFile;
        m_previewPage->showResult(m_preview);
        return false;
    }
    m_manager.setFeedFormats(options.feedFormats());
    m_runner->setFeedFormats(options.feedFormats());
    startPreview(m_previewedAddress);
    return true;
}

void CNewChannelWizard::chooseFeedLink(int index) {
    const auto& links = m_preview.links;
    if (index >= 0 && static_cast<std::size_t>(index) < links.size())
        startPreview(fromEngine(links[static_cast<std::size_t>(index)].address));
}

QString CNewChannelWizard::idProblem(const QString& id) const {
    const std::string engineId = toEngine(id);
    if (!app::isValidChannelId(engineId))
        return tr("A channel ID may hold letters, digits, '-', '_' and '.'.");
    namespace fs = std::filesystem;
    const fs::path dir = m_manager.channelsDir();
    if (m_manager.findChannel(engineId) || fs::exists(dir / (engineId + ".rss")) ||
        fs::exists(dir / (engineId + ".plugin")))
        return tr("Another channel has the ID %1.").arg(id);
    return QString();
}

void CNewChannelWizard::accept() {
    app::NewChannel request;
    const bool plugin = sourceKind() == SourceKind::Plugin;
    (plugin ? request.script : request.address) = toEngine(plugin ? source() : m_previewedAddress);
    request.id = toEngine(m_channelPage->m_id.text().trimmed());
    // The feed's own title needs no copy: the channel then follows the feed when it changes.
    request.name = toEngine(m_channelPage->m_name.text().trimmed());
    if (!plugin && request.name == m_preview.channel.channelDisplayName)
        request.name.clear();
    request.interval = m_channelPage->m_interval.value() * 60;
    request.autoUpdate = m_channelPage->m_autoUpdate.isChecked();
    if (plugin)
        request.parameters = m_sourcePage->parameters();
    try {
        app::addNewChannel(m_manager, request);
    } catch (const std::exception& failure) {
        QMessageBox::warning(this, windowTitle(), fromEngine(failure.what()));
        return;
    }
    m_settings.change(
        request.id, [this](ChannelDesktopSettings& settings) { m_desktopPage->applyTo(settings); });
    const std::string shownName = toEngine(m_channelPage->m_name.text().trimmed());
    m_settings.setChannelName(request.id, shownName.empty() ? request.id : shownName);
    m_settings.save(request.id);
    m_manager.requestUpdate(request.id);
    m_addedId = fromEngine(request.id);
    emit channelAdded(m_addedId);
    QWizard::accept();
}

} // namespace trayClient
