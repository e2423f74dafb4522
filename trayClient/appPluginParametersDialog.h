// Edits an app plugin's own parameters with one typed editor per definition; OK stores the
// values in the plugin and writes them to its ".plugin" file.
#pragma once

#include <QDialog>

class QLabel;

namespace channels {
class AppPlugin;
}

namespace trayClient {

class CParamForm;

class CAppPluginParametersDialog : public QDialog {
    Q_OBJECT
public:
    CAppPluginParametersDialog(channels::AppPlugin& plugin, QWidget* parent = nullptr);

    // Why the last OK did not close the dialog; empty when it did or was never pressed.
    QString errorText() const;

    // Stores the values and writes the file; the dialog stays open, with the reason shown,
    // when the file can't be written.
    void accept() override;

private:
    channels::AppPlugin& m_plugin;
    CParamForm* m_form;
    QLabel* m_error;
};

} // namespace trayClient
