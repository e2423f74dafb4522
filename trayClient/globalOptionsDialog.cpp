#include "trayClient/globalOptionsDialog.h"
#include "trayClient/uiStyle.h"

#include "lib/misc/profileFile.h"
#include "trayClient/optionEditors.h"
#include "trayClient/paramEditors.h"
#include "trayClient/scriptFileTypesPage.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QScrollArea>
#include <QSpinBox>
#include <QTabWidget>
#include <QVBoxLayout>

#include <functional>

namespace trayClient {

namespace {

struct PageTitle {
    OptionPage page;
    const char* title;
};
const PageTitle kPages[] = {
    {OptionPage::General, "General and windows"},
    {OptionPage::Notifications, "Notifications and sounds"},
    {OptionPage::Fonts, "Fonts and colours"},
    {OptionPage::Listeners, "Local listeners and ports"},
    {OptionPage::Scripts, "Scripts and downloads"},
};

// A sample of one pane as its options make it look: its font, its background and a line or
// two in its text colours.
struct PreviewLine {
    const char* text;
    const char* colourKey;
    const char* italicKey;
};
struct PanePreview {
    const char* fontKey;
    const char* sizeKey;
    const char* backgroundKey;
    PreviewLine lines[2];
};
const PanePreview kPreviews[] = {
    {"ControlCenterMyChannelsFontName",
     "ControlCenterMyChannelsFontSize",
     "ControlCenterMyChannelsBgdCol",
     {{"A channel that updates by itself", "ControlCenterAutoUpdateChannelFgdCol", nullptr},
      {"A channel updated by hand", "ControlCenterNonAutoUpdateChannelFgdCol", nullptr}}},
    {"ControlCenterAppPluginsFontName",
     "ControlCenterAppPluginsFontSize",
     "ControlCenterAppPluginsBgdCol",
     {{"A plugin", "ControlCenterAppPluginsFgdCol", nullptr}, {}}},
    {"ChannelItemViewFontName",
     "ChannelItemViewFontSize",
     "ChannelItemViewBgdCol",
     {{"A new item", "ChannelItemViewNewFeedItemFgdCol", nullptr},
      {"A viewed item", "ChannelItemViewViewedFeedItemFgdCol", "ItalicizeViewedFeedItems"}}},
    {"CaptionBarFontName",
     "CaptionBarFontSize",
     "CaptionBarBgdCol",
     {{"The channel's caption", "CaptionBarFgdCol", "CaptionBarItalics"}, {}}},
    {"ActivityLogFontName",
     "ActivityLogFontSize",
     "ActivityLogBgdCol",
     {{"12:00:00 Updating 3 channels.", "ActivityLogFgdCol", nullptr}, {}}},
    {"ErrorLogFontName",
     "ErrorLogFontSize",
     "ErrorLogBgdCol",
     {{"12:00:00 Couldn't reach the server.", "ErrorLogFgdCol", nullptr}, {}}},
};

// Any change an editor reports, as one signal.
void onChange(QWidget* editor, QObject* receiver, const std::function<void()>& slot) {
    if (auto* spin = qobject_cast<QSpinBox*>(editor))
        QObject::connect(spin, &QSpinBox::valueChanged, receiver, slot);
    else if (auto* combo = qobject_cast<QComboBox*>(editor))
        QObject::connect(combo, &QComboBox::currentTextChanged, receiver, slot);
    else if (auto* box = qobject_cast<QCheckBox*>(editor))
        QObject::connect(box, &QCheckBox::toggled, receiver, slot);
    else if (auto* colour = qobject_cast<CColourButton*>(editor))
        QObject::connect(colour, &CColourButton::colourChanged, receiver, slot);
}

QScrollArea* scrolled(QWidget* page) {
    auto* scroll = new QScrollArea;
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidget(page);
    return scroll;
}

} // namespace

CGlobalOptionsDialog::CGlobalOptionsDialog(app::GlobalOptions& options, std::string configFile,
                                           std::string globalIniFile, QWidget* parent)
    : QDialog(parent), m_options(options), m_configFile(std::move(configFile)),
      m_globalIniFile(std::move(globalIniFile)), m_tabs(new QTabWidget(this)),
      m_error(new QLabel(this)) {
    setWindowTitle(tr("Global Options"));
    for (const PageTitle& page : kPages)
        m_tabs->addTab(scrolled(makePage(static_cast<int>(page.page))), tr(page.title));
    m_scriptPage = new CScriptFileTypesPage(options, m_globalIniFile);
    m_tabs->addTab(m_scriptPage, tr("Script File Types"));
    for (auto& [key, binding] : m_editors)
        showOption(*binding.first, binding.second, options);
    addPreviews();

    layOutEditDialog(*this, m_tabs, *m_error);
}

CGlobalOptionsDialog::~CGlobalOptionsDialog() = default;

QWidget* CGlobalOptionsDialog::makePage(int page) {
    auto* widget = new QWidget;
    auto* layout = new QVBoxLayout(widget);
    // The engine takes most of these when the program starts.
    const auto kind = static_cast<OptionPage>(page);
    if (kind == OptionPage::Scripts) {
        auto* note = new QLabel(
            tr("Changes on this page take effect the next time Pelsu starts, except the script "
               "time-out, the detailed channel log, working offline and the feed formats, which "
               "the next update uses."),
            widget);
        note->setObjectName("restartNote");
        note->setWordWrap(true);
        layout->addWidget(note);
    }
    QFormLayout* form = nullptr;
    const char* group = nullptr;
    for (const OptionEditorRow& entry : optionEditorRows()) {
        if (static_cast<int>(entry.page) != page)
            continue;
        if (!group || std::string_view(group) != entry.group) {
            group = entry.group;
            auto* box = new QGroupBox(tr(group), widget);
            auto* boxLayout = new QHBoxLayout(box);
            form = new QFormLayout;
            boxLayout->addLayout(form, 1);
            layout->addWidget(box);
            m_groups[QString::fromLatin1(group)] = box;
        }
        QWidget* editor = makeOptionEditor(entry, widget);
        m_editors[QString::fromLatin1(entry.key)] = {&entry, editor};
        if (entry.kind == EditorKind::Flag)
            form->addRow(editor);
        else
            form->addRow(tr(entry.label) + u':',
                         entry.kind == EditorKind::SoundFile ? withPlayButton(editor) : editor);
    }
    layout->addStretch();
    return widget;
}

QWidget* CGlobalOptionsDialog::withPlayButton(QWidget* editor) {
    auto* box = new QWidget(editor->parentWidget());
    auto* layout = new QHBoxLayout(box);
    layout->setContentsMargins(0, 0, 0, 0);
    editor->setParent(box);
    layout->addWidget(editor, 1);
    auto* play = new QPushButton(tr("Play"), box);
    play->setToolTip(tr("Play the error sound (the desktop's own when no file is chosen)."));
    connect(play, &QPushButton::clicked, this, &CGlobalOptionsDialog::playErrorSound);
    layout->addWidget(play);
    return box;
}

void CGlobalOptionsDialog::addPreviews() {
    for (const PanePreview& preview : kPreviews) {
        const auto& [entry, editor] = m_editors.at(QString::fromLatin1(preview.fontKey));
        auto* list = new QListWidget(m_groups.at(QString::fromLatin1(entry->group)));
        list->setSelectionMode(QAbstractItemView::NoSelection);
        list->setFocusPolicy(Qt::NoFocus);
        list->setFixedWidth(260);
        for (const PreviewLine& line : preview.lines)
            if (line.text)
                list->addItem(tr(line.text));
        list->parentWidget()->layout()->addWidget(list);
        m_previews.push_back(list);
    }
    for (auto& [key, binding] : m_editors)
        if (binding.first->page == OptionPage::Fonts)
            onChange(binding.second, this, [this] { refreshPreviews(); });
    refreshPreviews();
}

void CGlobalOptionsDialog::refreshPreviews() {
    const auto editor = [this](const char* key) {
        return m_editors.at(QString::fromLatin1(key)).second;
    };
    const auto colour = [&](const char* key) {
        return qobject_cast<CColourButton*>(editor(key))->colour();
    };
    for (std::size_t i = 0; i < m_previews.size(); ++i) {
        const PanePreview& preview = kPreviews[i];
        QListWidget* list = m_previews[i];
        QFont font(qobject_cast<QComboBox*>(editor(preview.fontKey))->currentText());
        // The sizes are the panes' character heights in pixels.
        font.setPixelSize(qobject_cast<QSpinBox*>(editor(preview.sizeKey))->value());
        list->setFont(font);
        QPalette palette = list->palette();
        palette.setColor(QPalette::Base, colour(preview.backgroundKey));
        list->setPalette(palette);
        for (int row = 0; row < list->count(); ++row) {
            const PreviewLine& line = preview.lines[row];
            QFont lineFont = font;
            lineFont.setItalic(line.italicKey &&
                               qobject_cast<QCheckBox*>(editor(line.italicKey))->isChecked());
            list->item(row)->setFont(lineFont);
            list->item(row)->setForeground(colour(line.colourKey));
        }
    }
}

void CGlobalOptionsDialog::playErrorSound() {
    const auto* chooser =
        qobject_cast<CFileChooser*>(editorFor(QStringLiteral("DefaultErrorSoundFilename")));
    const std::string file = chooser->path().trimmed().toLatin1().toStdString();
    m_sound.play(file.empty() ? SoundChoice{SoundChoice::Kind::Event, "dialog-error"}
                              : SoundChoice{SoundChoice::Kind::File, file});
}

QWidget* CGlobalOptionsDialog::editorFor(const QString& key) const {
    const auto it = m_editors.find(key);
    return it == m_editors.end() ? nullptr : it->second.second;
}

QString CGlobalOptionsDialog::errorText() const { return m_error->text(); }

void CGlobalOptionsDialog::showError(const QString& text) {
    m_error->setText(text);
    m_error->setVisible(!text.isEmpty());
}

void CGlobalOptionsDialog::accept() {
    // The edits go to a copy, so the caller's record changes only when everything is saved.
    app::GlobalOptions edited = m_options;
    for (const auto& [key, binding] : m_editors)
        takeOption(*binding.first, binding.second, edited);
    if (edited.appPluginServerPortNo == edited.appServerPortNo) {
        // Both servers listen on 127.0.0.1: the second would fail to start.
        showError(tr("The plugin server and the application server need different ports."));
        return;
    }
    if (!edited.save(m_configFile)) {
        showError(tr("Couldn't save the global options to %1: %2")
                      .arg(QString::fromLocal8Bit(m_configFile.c_str()),
                           QString::fromLocal8Bit(profile::lastWriteError().c_str())));
        return;
    }
    if (m_scriptPage->isEditable()) {
        m_scriptPage->apply(edited);
        if (!edited.saveScriptFileTypes(m_globalIniFile)) {
            showError(tr("Couldn't save the script file types to %1: %2")
                          .arg(QString::fromLocal8Bit(m_globalIniFile.c_str()),
                               QString::fromLocal8Bit(profile::lastWriteError().c_str())));
            return;
        }
    }
    m_options = edited;
    showError({});
    QDialog::accept();
}

} // namespace trayClient

#include "moc_globalOptionsDialog.cpp" // NOLINT(bugprone-suspicious-include)
