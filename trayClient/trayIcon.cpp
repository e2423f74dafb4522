#include "trayClient/trayIcon.h"

#include <QPainter>
#include <QPen>
#include <QPixmap>

namespace trayClient {

namespace {

const int kFrameMs = 200;

// An orange tile with a dot and up to two arcs, the usual picture of a feed; the animation
// lets the arcs appear one after the other.
QPixmap drawIcon(int size, int arcs) {
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(0xf2, 0x8c, 0x1e));
    qreal unit = size / 16.0;
    painter.drawRoundedRect(QRectF(0, 0, size, size), 3 * unit, 3 * unit);
    painter.setBrush(Qt::white);
    painter.drawEllipse(QPointF(4.5 * unit, 11.5 * unit), 1.6 * unit, 1.6 * unit);
    QPen pen(Qt::white, 1.9 * unit, Qt::SolidLine, Qt::RoundCap);
    painter.setPen(pen);
    painter.setBrush(Qt::NoBrush);
    for (int arc = 1; arc <= arcs; ++arc) {
        qreal radius = (arc * 4.2) * unit;
        QRectF box(4.5 * unit - radius, 11.5 * unit - radius, 2 * radius, 2 * radius);
        painter.drawArc(box, 0, 90 * 16);
    }
    return pixmap;
}

} // namespace

QIcon programIcon(int frame) {
    // Frame 0 shows both arcs; frames 1, 2 and 3 show none, one and two.
    int arcs = frame == 0 ? 2 : (frame - 1) % 3;
    QIcon icon;
    for (int size : {16, 22, 24, 32, 48, 64})
        icon.addPixmap(drawIcon(size, arcs));
    return icon;
}

CTrayIcon::CTrayIcon(QObject* parent) : QObject(parent) {
    for (int frame = 0; frame < 4; ++frame)
        m_frames[frame] = programIcon(frame);
    m_icon.setIcon(m_frames[0]);
    m_icon.setToolTip("Pelsu");
    m_animation.setInterval(kFrameMs);
    connect(&m_animation, &QTimer::timeout, this, &CTrayIcon::nextFrame);
    connect(&m_icon, &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick)
                    emit activated();
            });
    connect(&m_icon, &QSystemTrayIcon::messageClicked, this, &CTrayIcon::messageClicked);
}

void CTrayIcon::show() { m_icon.show(); }

void CTrayIcon::hide() { m_icon.hide(); }

void CTrayIcon::showMessage(const QString& title, const QString& text, bool isError,
                            int timeoutMs) {
    m_icon.showMessage(
        title, text, isError ? QSystemTrayIcon::Critical : QSystemTrayIcon::Information, timeoutMs);
    emit messageShown(title, text);
}

void CTrayIcon::animate(int durationMs) {
    m_framesLeft = std::max(1, durationMs / kFrameMs);
    if (!m_animation.isActive()) {
        m_frame = 0;
        m_animation.start();
    }
}

void CTrayIcon::nextFrame() {
    if (--m_framesLeft <= 0) {
        m_animation.stop();
        m_icon.setIcon(m_frames[0]);
        return;
    }
    m_frame = m_frame % 3 + 1;
    m_icon.setIcon(m_frames[m_frame]);
}

} // namespace trayClient

// Each class's meta-object code goes with its own object file, so that a program links only
// the classes it uses.
#include "moc_trayIcon.cpp" // NOLINT(bugprone-suspicious-include)
