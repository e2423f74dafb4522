// The program's icon in the notification area: shows the main window when activated, shows
// the fallback messages when no notification server runs, and is animated for a few seconds
// when a watched channel has news.
#pragma once

#include <QIcon>
#include <QMenu>
#include <QObject>
#include <QString>
#include <QSystemTrayIcon>
#include <QTimer>

namespace trayClient {

// The program's icon, drawn rather than loaded so that it can't go missing; frame 0 is the
// still icon, frames 1 to 3 the animation.
QIcon programIcon(int frame = 0);

class CTrayIcon : public QObject {
    Q_OBJECT
public:
    explicit CTrayIcon(QObject* parent = nullptr);

    // The menu of a right click (not owned).
    void setContextMenu(QMenu* menu) { m_icon.setContextMenu(menu); }
    // Puts the icon in the tray.
    void show();
    void hide();
    bool isVisible() const { return m_icon.isVisible(); }

    // Shows a message at the icon for timeoutMs (the fallback of the notifications).
    void showMessage(const QString& title, const QString& text, bool isError, int timeoutMs);
    // Cycles through the animation frames for durationMs, then shows the still icon again.
    void animate(int durationMs = 4000);
    bool isAnimating() const { return m_animation.isActive(); }

signals:
    // The user clicked or double-clicked the icon.
    void activated();
    // The user clicked the last message shown with showMessage.
    void messageClicked();
    // A message went to the tray (also when no tray host shows it).
    void messageShown(const QString& title, const QString& text);

private:
    void nextFrame();

    QSystemTrayIcon m_icon;
    QIcon m_frames[4]; // drawn once: the still icon and the three animation frames
    QTimer m_animation;
    int m_frame = 0;
    int m_framesLeft = 0;
};

} // namespace trayClient
