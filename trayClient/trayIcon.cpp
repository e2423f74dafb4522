#include "trayClient/trayIcon.h"

#include <QFile>
#include <QFont>
#include <QFontMetricsF>
#include <QHash>
#include <QIconEngine>
#include <QPainter>
#include <QPainterPath>
#include <QPixmap>
#include <QSvgRenderer>

#include <algorithm>

// Resources of a static library are linked only when something names them.
static void initIconResource() { Q_INIT_RESOURCE(trayClient); }

namespace trayClient {

namespace {

const int kFrameMs = 200;
const qreal kGrid = 16.0; // the SVG's view box is 16 units square

const QByteArray& iconSvg() {
    static const QByteArray data = [] {
        initIconResource();
        QFile file(":/pelsu/pelsu.svg");
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }();
    return data;
}

// Renders one element of the icon where it sits in the view box, scaled to the pixmap.
void renderElement(QSvgRenderer& svg, QPainter& painter, const QString& id, qreal scale) {
    if (!svg.elementExists(id))
        return;
    QRectF bounds = svg.transformForElement(id).mapRect(svg.boundsOnElement(id));
    svg.render(&painter, id,
               QRectF(bounds.x() * scale, bounds.y() * scale, bounds.width() * scale,
                      bounds.height() * scale));
}

// The largest bold font whose text fits in width and a badge of the given height.
QFont badgeFont(const QString& text, qreal width, qreal height) {
    QFont font;
    font.setBold(true);
    for (qreal pixels = height * 0.85; pixels > 4; pixels -= 0.5) {
        font.setPixelSize(qRound(pixels));
        if (QFontMetricsF(font).horizontalAdvance(text) + height * 0.3 <= width)
            break;
    }
    return font;
}

// A red pill in the lower right corner with the text in white; it takes about half the
// icon's height so that two digits stay readable at 16 px.
void drawBadge(QPainter& painter, int size, const QString& text) {
    const qreal height = std::max(9.0, size * 0.5);
    const QFont font = badgeFont(text, size, height);
    const qreal textWidth = QFontMetricsF(font).horizontalAdvance(text);
    const qreal width = std::min<qreal>(size, std::max(height, textWidth + height * 0.3));
    const QRectF pill(size - width, size - height, width, height);
    QPainterPath path;
    path.addRoundedRect(pill, height / 2, height / 2);
    painter.setPen(QPen(QColor(0x7a, 0x12, 0x12), std::max(1.0, size / 32.0)));
    painter.setBrush(QColor(0xd3, 0x2f, 0x2f));
    painter.drawPath(path);
    painter.setFont(font);
    painter.setPen(Qt::white);
    painter.drawText(pill, Qt::AlignCenter, text);
}

QPixmap renderIcon(int size, int arcs, const QString& badge) {
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QSvgRenderer svg(iconSvg());
    QPainter painter(&pixmap);
    painter.setRenderHints(QPainter::Antialiasing | QPainter::TextAntialiasing);
    const qreal scale = size / kGrid;
    renderElement(svg, painter, "tile", scale);
    renderElement(svg, painter, "dot", scale);
    for (int arc = 1; arc <= arcs; ++arc)
        renderElement(svg, painter, QString("arc%1").arg(arc), scale);
    if (!badge.isEmpty())
        drawBadge(painter, size, badge);
    return pixmap;
}

// Renders the icon at each size it is asked for, once per size, so the tray gets a sharp
// picture whatever its size and the animation does not redraw its frames.
class CIconEngine : public QIconEngine {
public:
    CIconEngine(int arcs, QString badge) : m_arcs(arcs), m_badge(std::move(badge)) {}

    void paint(QPainter* painter, const QRect& rect, QIcon::Mode mode,
               QIcon::State state) override {
        const int side = std::min(rect.width(), rect.height());
        painter->drawPixmap(rect.topLeft(), pixmap(QSize(side, side), mode, state));
    }

    QPixmap pixmap(const QSize& size, QIcon::Mode, QIcon::State) override {
        const int side = std::max(1, std::min(size.width(), size.height()));
        auto cached = m_cache.constFind(side);
        if (cached != m_cache.constEnd())
            return *cached;
        QPixmap rendered = renderIcon(side, m_arcs, m_badge);
        m_cache.insert(side, rendered);
        return rendered;
    }

    QIconEngine* clone() const override { return new CIconEngine(*this); }
    QString key() const override { return "pelsu"; }
    QList<QSize> availableSizes(QIcon::Mode, QIcon::State) override {
        QList<QSize> sizes;
        for (int side : {16, 22, 24, 32, 48, 64, 128})
            sizes.append(QSize(side, side));
        return sizes;
    }

private:
    int m_arcs;
    QString m_badge;
    QHash<int, QPixmap> m_cache;
};

} // namespace

QIcon programIcon(int frame, const QString& badge) {
    // Frame 0 shows both arcs; frames 1, 2 and 3 show none, one and two.
    const int arcs = frame == 0 ? 2 : (frame - 1) % 3;
    return QIcon(new CIconEngine(arcs, badge));
}

QString unviewedBadge(int count) {
    if (count <= 0)
        return {};
    return count > 99 ? QString("99+") : QString::number(count);
}

QString unviewedToolTip(int count) {
    if (count <= 0)
        return "Pelsu";
    return QString("Pelsu \u2014 %1 unviewed %2").arg(count).arg(count == 1 ? "item" : "items");
}

CTrayIcon::CTrayIcon(QObject* parent) : QObject(parent) {
    makeFrames();
    m_icon.setIcon(m_frames[0]);
    m_icon.setToolTip(unviewedToolTip(0));
    m_animation.setInterval(kFrameMs);
    connect(&m_animation, &QTimer::timeout, this, &CTrayIcon::nextFrame);
    connect(&m_icon, &QSystemTrayIcon::activated, this, &CTrayIcon::handleActivation);
    connect(&m_icon, &QSystemTrayIcon::messageClicked, this, &CTrayIcon::messageClicked);
}

void CTrayIcon::makeFrames() {
    const QString badge = unviewedBadge(m_count);
    for (int frame = 0; frame < 4; ++frame)
        m_frames[frame] = programIcon(frame, badge);
}

void CTrayIcon::show() { m_icon.show(); }

void CTrayIcon::hide() { m_icon.hide(); }

void CTrayIcon::setUnviewedCount(int count) {
    count = std::max(0, count);
    if (count == m_count)
        return;
    const bool badgeChanged = unviewedBadge(count) != unviewedBadge(m_count);
    m_count = count;
    m_icon.setToolTip(unviewedToolTip(count));
    if (!badgeChanged)
        return;
    makeFrames();
    m_icon.setIcon(m_frames[isAnimating() ? m_frame : 0]);
}

void CTrayIcon::handleActivation(QSystemTrayIcon::ActivationReason reason) {
    // A double click starts with a single one: in one-click mode only that first click counts.
    if (reason == (m_oneClick ? QSystemTrayIcon::Trigger : QSystemTrayIcon::DoubleClick))
        emit activated();
}

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
        m_frame = 0;
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
