// Typed editors for plugin parameters: one editor per parameter definition, chosen by its
// type, and a form that shows a whole definition table with its values. Values stay text
// (the scripts receive text): an editor hands back a stored value it could not show exactly
// as it was, unless the user changed it.
#pragma once

#include "channels/internal/paramDefs.h"

#include <QString>
#include <QWidget>

#include <map>
#include <memory>
#include <string>
#include <vector>

class QLineEdit;

namespace trayClient {

// The Qt file-dialog filter of a definition's filter list (parts separated by NULs, pairs of
// description and patterns, the patterns separated by ";"): "Text (*.txt);;All (*.*)".
// Empty when the list holds no pair.
QString qtFileFilter(const std::string& fileFilters);

// One parameter's editor: integer → QSpinBox, boolean → QCheckBox, string → QLineEdit,
// double → QDoubleSpinBox, file → QLineEdit with a Browse button.
class CParamEditor {
public:
    virtual ~CParamEditor() = default;
    // The widget to put in a layout (owned by its Qt parent).
    virtual QWidget* widget() const = 0;
    // Shows a stored value.
    virtual void setValue(const std::string& value) = 0;
    // The value to store.
    virtual std::string value() const = 0;
};

// The editor for a definition, its widgets parented to parent. The widget's object name is
// the parameter's name.
std::unique_ptr<CParamEditor> makeParamEditor(const channels::ParamDef& definition,
                                              QWidget* parent);

// A form of one editor per definition, in table order, each labelled with the parameter's
// name and followed by its description.
class CParamForm : public QWidget {
    Q_OBJECT
public:
    CParamForm(const channels::ParamDefTable& definitions, const channels::ParamValues& values,
               QWidget* parent = nullptr);
    ~CParamForm() override;

    // One value per definition, as the editors hold them now.
    channels::ParamValues values() const;
    bool isEmpty() const { return m_editors.empty(); }

private:
    std::vector<std::pair<std::string, std::unique_ptr<CParamEditor>>> m_editors;
};

// A line edit with a Browse button that opens a file dialog (filter and default suffix as
// given); the chosen path replaces the text.
class CFileChooser : public QWidget {
    Q_OBJECT
public:
    CFileChooser(QString filter, QString defaultSuffix, QWidget* parent = nullptr);
    QLineEdit* lineEdit() const { return m_edit; }
    QString path() const;
    void setPath(const QString& path);

signals:
    void pathChanged(const QString& path);

private:
    void browse();

    QLineEdit* m_edit;
    QString m_filter;
    QString m_defaultSuffix;
};

} // namespace trayClient
