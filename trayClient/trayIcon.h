// The program's icon in the notification area: shows or hides the main window on the click
// "OneClickMode" asks for, carries the count of unviewed items as a badge and in its tooltip,
// shows the fallback messages when no notification server runs, and is animated for a few
// seconds when a watched channel has news.
#pragma once

#include <QIcon>
#include <QMenu>
#include <QObject>
#include <QString>
#include <QSystemTrayIcon>
#include <QTimer>

namespace trayClient {

// The program's icon, rendered from the SVG built into the program (so it can't go missing)
// at whatever size is asked for; frame 0 is the still icon, frames 1 to 3 the animation. A
// non-empty badge is drawn in the lower right corner.
QIcon programIcon(int frame = 0, const QString& badge = {});

// The badge for a count of unviewed items: nothing at 0 (or below), "99+" beyond 99.
QString unviewedBadge(int count);
// The tooltip: "Pelsu" alone at 0, else "Pelsu — 3 unviewed items" ("1 unviewed item").
QString unviewedToolTip(int count);

class CTrayIcon : public QObject {
    Q_OBJECT
public:
    explicit CTrayIcon(QObject* parent = nullptr);

    // The menu of a right click (not owned).
    void setContextMenu(QMenu* menu) { m_icon.setContextMenu(menu); }
    // True: a single left click toggles the main window; false: a double click does.
    void setOneClickMode(bool oneClick) { m_oneClick = oneClick; }
    // Puts the icon in the tray.
    void show();
    void hide();
    bool isVisible() const { return m_icon.isVisible(); }

    // Shows the count on the icon and in its tooltip (the animation keeps the badge).
    void setUnviewedCount(int count);
    int unviewedCount() const { return m_count; }
    QString toolTip() const { return m_icon.toolTip(); }
    // The picture the tray shows right now.
    QIcon icon() const { return m_icon.icon(); }

    // Shows a message at the icon for timeoutMs (the fallback of the notifications).
    void showMessage(const QString& title, const QString& text, bool isError, int timeoutMs);
    // Cycles through the animation frames for durationMs, then shows the still icon again.
    void animate(int durationMs = 4000);
    bool isAnimating() const { return m_animation.isActive(); }

    // What the tray reports of a click: emits activated() when it is the click that toggles
    // the main window in the current mode (public so that tests can click).
    void handleActivation(QSystemTrayIcon::ActivationReason reason);

signals:
    // The user clicked the icon the way that shows or hides the main window.
    void activated();
    // The user clicked the last message shown with showMessage.
    void messageClicked();
    // A message went to the tray (also when no tray host shows it).
    void messageShown(const QString& title, const QString& text);

private:
    void nextFrame();
    void makeFrames();

    QSystemTrayIcon m_icon;
    QIcon m_frames[4]; // the still icon and the three animation frames, each rendered once a size
    QTimer m_animation;
    int m_frame = 0;
    int m_framesLeft = 0;
    int m_count = 0;
    bool m_oneClick = true;
};

} // namespace trayClient
