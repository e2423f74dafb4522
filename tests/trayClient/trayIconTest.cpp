// The tray icon: the picture rendered at the sizes trays ask for, the unviewed badge and
// tooltip, the animation keeping the badge, and which click shows the main window.
#include "trayClient/trayIcon.h"

#include "tests/trayClient/support/clientTestSupport.h"

#include <QImage>

#include <gtest/gtest.h>

using namespace trayClient;

namespace {

int opaquePixels(const QImage& image) {
    int count = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            count += qAlpha(image.pixel(x, y)) > 200;
    return count;
}

// Pixels that are clearly red (the badge) rather than the orange tile or white.
int redPixels(const QImage& image) {
    int count = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) {
            const QRgb pixel = image.pixel(x, y);
            count += qAlpha(pixel) > 200 && qRed(pixel) > 150 && qGreen(pixel) < 90;
        }
    return count;
}

QImage render(const QIcon& icon, int size) {
    return icon.pixmap(QSize(size, size), 1.0).toImage().convertToFormat(QImage::Format_ARGB32);
}

} // namespace

TEST(TrayIcon, BadgeAndTooltipFollowTheUnviewedCount) {
    EXPECT_EQ(unviewedBadge(0), "");
    EXPECT_EQ(unviewedBadge(-3), "");
    EXPECT_EQ(unviewedBadge(5), "5");
    EXPECT_EQ(unviewedBadge(99), "99");
    EXPECT_EQ(unviewedBadge(150), "99+");
    EXPECT_EQ(unviewedToolTip(0), "Pelsu");
    EXPECT_EQ(unviewedToolTip(1), QString::fromUtf8("Pelsu — 1 unviewed item"));
    EXPECT_EQ(unviewedToolTip(5), QString::fromUtf8("Pelsu — 5 unviewed items"));
    // The tooltip tells the whole count even when the badge can't.
    EXPECT_EQ(unviewedToolTip(150), QString::fromUtf8("Pelsu — 150 unviewed items"));
}

TEST(TrayIcon, RendersSharpAtEveryTraySizeWithTheBadgeOnlyWhenCounting) {
    for (int size : {16, 22, 48, 128}) {
        SCOPED_TRACE(size);
        const QImage plain = render(programIcon(), size);
        ASSERT_EQ(plain.size(), QSize(size, size));
        // The tile fills most of the square: not blank, not a scaled-up smudge.
        EXPECT_GT(opaquePixels(plain), size * size * 3 / 4);
        EXPECT_EQ(redPixels(plain), 0);
        for (const char* badge : {"5", "99+"}) {
            const QImage counted = render(programIcon(0, badge), size);
            EXPECT_GT(redPixels(counted), size * size / 20) << badge;
            EXPECT_NE(counted, plain);
        }
    }
    // The animation's frames differ from the still icon (the arcs come one by one).
    EXPECT_NE(render(programIcon(1), 48), render(programIcon(0), 48));
    EXPECT_NE(render(programIcon(2), 48), render(programIcon(1), 48));
}

TEST(TrayIcon, TheCountChangesTheToolTipAndPictureAndSurvivesTheAnimation) {
    CTrayIcon tray;
    EXPECT_EQ(tray.toolTip(), "Pelsu");
    const QImage still = render(tray.icon(), 32);
    tray.setUnviewedCount(3);
    EXPECT_EQ(tray.toolTip(), QString::fromUtf8("Pelsu — 3 unviewed items"));
    const QImage counted = render(tray.icon(), 32);
    EXPECT_NE(counted, still);
    EXPECT_GT(redPixels(counted), 0);

    tray.animate(600);
    ASSERT_TRUE(client_testing::waitFor([&] { return render(tray.icon(), 32) != counted; }));
    EXPECT_GT(redPixels(render(tray.icon(), 32)), 0); // a frame of the animation, with the badge
    ASSERT_TRUE(client_testing::waitFor([&] { return !tray.isAnimating(); }));
    EXPECT_EQ(render(tray.icon(), 32), counted);
    tray.setUnviewedCount(0);
    EXPECT_EQ(render(tray.icon(), 32), still);
    EXPECT_EQ(tray.toolTip(), "Pelsu");
}

TEST(TrayIcon, OneClickModeDecidesWhichClickTogglesTheWindow) {
    CTrayIcon tray;
    int activated = 0;
    QObject::connect(&tray, &CTrayIcon::activated, [&] { ++activated; });
    // A double click arrives as a click and then a double click.
    tray.handleActivation(QSystemTrayIcon::Trigger);
    tray.handleActivation(QSystemTrayIcon::DoubleClick);
    tray.handleActivation(QSystemTrayIcon::Context);
    EXPECT_EQ(activated, 1);

    tray.setOneClickMode(false);
    tray.handleActivation(QSystemTrayIcon::Trigger);
    EXPECT_EQ(activated, 1);
    tray.handleActivation(QSystemTrayIcon::DoubleClick);
    EXPECT_EQ(activated, 2);
    tray.handleActivation(QSystemTrayIcon::Context);
    tray.handleActivation(QSystemTrayIcon::MiddleClick);
    EXPECT_EQ(activated, 2);
}

int main(int argc, char** argv) { return client_testing::runClientTests(argc, argv); }
