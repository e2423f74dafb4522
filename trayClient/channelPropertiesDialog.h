// A channel's properties: the "Channel" page (the configuration and update settings of its
// file; for a plugin channel its script and parameter values with typed editors), the
// "Desktop" page (how the desktop reacts to its new items) and the read-only "Status" page
// (last fetch, HTTP validators, item count, last error). OK checks the input, writes the
// channel under its lock and saves its file, then changes and saves the desktop settings;
// invalid input or a failed save keeps the dialog open with the reason shown.
#pragma once

#include <QDialog>

#include <cstdint>
#include <memory>

class QComboBox;
class QLabel;
class QLineEdit;
class QSpinBox;

namespace channels {
class Channel;
}

namespace trayClient {

class ChannelDesktopSettingsTable;
class CFileChooser;
class CParamForm;
class CSoundPlayer;

class CChannelPropertiesDialog : public QDialog {
    Q_OBJECT
public:
    // The shortest and longest update intervals the dialog accepts, in seconds.
    static constexpr std::int32_t kMinimumInterval = 60;
    static constexpr std::int32_t kMaximumInterval = 365 * 86400;

    // lastError: the channel's last update error as the caller knows it (shown on "Status").
    CChannelPropertiesDialog(channels::Channel& channel, ChannelDesktopSettingsTable& settings,
                             QWidget* parent = nullptr, QString lastError = {});
    ~CChannelPropertiesDialog() override;

    // Why the last OK did not close the dialog; empty when it did or was never pressed.
    QString errorText() const;
    // Whether the accepted changes gave the channel another address or script, so that the
    // caller may update it at once.
    bool sourceChanged() const { return m_sourceChanged; }

    void accept() override;

private:
    QWidget* makeChannelPage();
    QWidget* makeSettingsGroup(QWidget* parent);
    QWidget* makePluginParameters(QWidget* parent);
    QWidget* makeDesktopPage();
    QWidget* makeStatusPage(const QString& lastError);
    QString validate() const;
    std::int32_t interval() const;
    void applySource();
    void applyConfigAndSettings();
    QString writeChannel();
    QString writeDesktopSettings();
    void playNewItemSound();
    void showError(const QString& text);

    channels::Channel& m_channel;
    ChannelDesktopSettingsTable& m_settings;
    bool m_isPlugin;
    bool m_sourceChanged = false;
    QLineEdit* m_source = nullptr;
    CFileChooser* m_script = nullptr;
    CParamForm* m_channelParams = nullptr;
    CParamForm* m_pluginParams = nullptr;
    QSpinBox* m_intervalCount = nullptr;
    QComboBox* m_intervalUnit = nullptr;
    CFileChooser* m_soundFile = nullptr;
    QLabel* m_error;
    std::unique_ptr<CSoundPlayer> m_sound;
};

} // namespace trayClient
