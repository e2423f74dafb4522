#include "trayClient/paramEditors.h"

#include "lib/misc/iniValues.h"

#include <QCheckBox>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>

#include <climits>

namespace trayClient {

namespace {

QString latin1(const std::string& text) { return QString::fromLatin1(text); }

// Remembers the stored text so that a value the widget can't show (an integer parameter
// holding "abc") is handed back unchanged unless the user edits it.
class CStoredText {
protected:
    void remember(const std::string& text, bool shownExactly) {
        m_stored = text;
        m_shownExactly = shownExactly;
        m_edited = false;
    }
    bool keepStored() const { return !m_shownExactly && !m_edited; }
    void markEdited() { m_edited = true; }
    std::string m_stored;

private:
    bool m_shownExactly = true;
    bool m_edited = false;
};

class CIntEditor : public CParamEditor, CStoredText {
public:
    explicit CIntEditor(QWidget* parent) : m_spin(new QSpinBox(parent)) {
        m_spin->setRange(INT_MIN, INT_MAX);
        QObject::connect(m_spin, &QSpinBox::valueChanged, [this] { markEdited(); });
    }
    QWidget* widget() const override { return m_spin; }
    void setValue(const std::string& value) override {
        bool ok = false;
        const int number = latin1(value).trimmed().toInt(&ok);
        const QSignalBlocker blocker(m_spin);
        m_spin->setValue(ok ? number : 0);
        remember(value, ok);
    }
    std::string value() const override {
        return keepStored() ? m_stored : std::to_string(m_spin->value());
    }

private:
    QSpinBox* m_spin;
};

class CDoubleEditor : public CParamEditor, CStoredText {
public:
    explicit CDoubleEditor(QWidget* parent) : m_spin(new QDoubleSpinBox(parent)) {
        m_spin->setRange(-1e12, 1e12);
        m_spin->setDecimals(6);
        QObject::connect(m_spin, &QDoubleSpinBox::valueChanged, [this] { markEdited(); });
    }
    QWidget* widget() const override { return m_spin; }
    void setValue(const std::string& value) override {
        bool ok = false;
        const double number = latin1(value).trimmed().toDouble(&ok);
        const QSignalBlocker blocker(m_spin);
        m_spin->setValue(ok ? number : 0.0);
        // A value with more decimals than the box shows is not shown exactly either.
        remember(value, ok && m_spin->value() == number);
    }
    std::string value() const override {
        return keepStored() ? m_stored : QString::number(m_spin->value(), 'g', 15).toStdString();
    }

private:
    QDoubleSpinBox* m_spin;
};

class CBoolEditor : public CParamEditor, CStoredText {
public:
    explicit CBoolEditor(QWidget* parent) : m_box(new QCheckBox(parent)) {
        QObject::connect(m_box, &QCheckBox::toggled, [this] { markEdited(); });
    }
    QWidget* widget() const override { return m_box; }
    // Read as the engine reads a flag: any non-zero number is true.
    void setValue(const std::string& value) override {
        const QSignalBlocker blocker(m_box);
        const int number = profile::parseIniInt(value);
        m_box->setChecked(number != 0);
        remember(value, value == "0" || value == "1");
    }
    std::string value() const override {
        return keepStored() ? m_stored : (m_box->isChecked() ? "1" : "0");
    }

private:
    QCheckBox* m_box;
};

class CStringEditor : public CParamEditor {
public:
    explicit CStringEditor(QWidget* parent) : m_edit(new QLineEdit(parent)) {}
    QWidget* widget() const override { return m_edit; }
    void setValue(const std::string& value) override { m_edit->setText(latin1(value)); }
    std::string value() const override { return m_edit->text().toLatin1().toStdString(); }

private:
    QLineEdit* m_edit;
};

// The definition's default extension, with or without its dot, as a file dialog's suffix.
QString defaultSuffix(const std::string& extension) {
    QString suffix = latin1(extension).trimmed();
    return suffix.startsWith(u'.') ? suffix.mid(1) : suffix;
}

class CFileEditor : public CParamEditor {
public:
    CFileEditor(const channels::ParamDef& definition, QWidget* parent)
        : m_chooser(new CFileChooser(qtFileFilter(definition.fileFilters),
                                     defaultSuffix(definition.defaultFileExtn), parent)) {}
    QWidget* widget() const override { return m_chooser; }
    void setValue(const std::string& value) override { m_chooser->setPath(latin1(value)); }
    std::string value() const override { return m_chooser->path().toLatin1().toStdString(); }

private:
    CFileChooser* m_chooser;
};

} // namespace

QString qtFileFilter(const std::string& fileFilters) {
    QStringList parts = latin1(fileFilters).split(QChar(u'\0'), Qt::SkipEmptyParts);
    QStringList filters;
    for (qsizetype i = 0; i + 1 < parts.size(); i += 2) {
        QString patterns = parts[i + 1];
        patterns.replace(u';', u' ');
        filters << parts[i] + QStringLiteral(" (") + patterns.simplified() + u')';
    }
    return filters.join(QStringLiteral(";;"));
}

std::unique_ptr<CParamEditor> makeParamEditor(const channels::ParamDef& definition,
                                              QWidget* parent) {
    std::unique_ptr<CParamEditor> editor;
    switch (definition.type) {
    case channels::kParamInt:
        editor = std::make_unique<CIntEditor>(parent);
        break;
    case channels::kParamBool:
        editor = std::make_unique<CBoolEditor>(parent);
        break;
    case channels::kParamDouble:
        editor = std::make_unique<CDoubleEditor>(parent);
        break;
    case channels::kParamFile:
        editor = std::make_unique<CFileEditor>(definition, parent);
        break;
    default:
        editor = std::make_unique<CStringEditor>(parent);
        break;
    }
    editor->widget()->setObjectName(latin1(definition.name));
    editor->setValue(definition.defaultValue);
    return editor;
}

CParamForm::CParamForm(const channels::ParamDefTable& definitions,
                       const channels::ParamValues& values, QWidget* parent)
    : QWidget(parent) {
    auto* layout = new QFormLayout(this);
    for (const auto& definition : definitions) {
        auto editor = makeParamEditor(*definition, this);
        if (auto it = values.find(definition->name); it != values.end())
            editor->setValue(it->second);
        layout->addRow(latin1(definition->name) + u':', editor->widget());
        if (!definition->description.empty()) {
            auto* description = new QLabel(latin1(definition->description), this);
            description->setWordWrap(true);
            layout->addRow(QString(), description);
        }
        m_editors.emplace_back(definition->name, std::move(editor));
    }
}

CParamForm::~CParamForm() = default;

channels::ParamValues CParamForm::values() const {
    channels::ParamValues values;
    for (const auto& [name, editor] : m_editors)
        values[name] = editor->value();
    return values;
}

CFileChooser::CFileChooser(QString filter, QString defaultSuffix, QWidget* parent)
    : QWidget(parent), m_edit(new QLineEdit(this)), m_filter(std::move(filter)),
      m_defaultSuffix(std::move(defaultSuffix)) {
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_edit, 1);
    auto* browse = new QPushButton(tr("Browse..."), this);
    layout->addWidget(browse);
    connect(browse, &QPushButton::clicked, this, &CFileChooser::browse);
    connect(m_edit, &QLineEdit::textChanged, this, &CFileChooser::pathChanged);
}

QString CFileChooser::path() const { return m_edit->text(); }

void CFileChooser::setPath(const QString& path) { m_edit->setText(path); }

void CFileChooser::browse() {
    QFileDialog dialog(this, tr("Choose a file"), path());
    dialog.setFileMode(QFileDialog::ExistingFile);
    if (!m_filter.isEmpty())
        dialog.setNameFilters(m_filter.split(QStringLiteral(";;")));
    dialog.setDefaultSuffix(m_defaultSuffix);
    if (!path().isEmpty())
        dialog.selectFile(path());
    if (dialog.exec() == QDialog::Accepted && !dialog.selectedFiles().isEmpty())
        setPath(dialog.selectedFiles().constFirst());
}

} // namespace trayClient

#include "moc_paramEditors.cpp" // NOLINT(bugprone-suspicious-include)
