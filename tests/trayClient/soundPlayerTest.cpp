// Which sound goes with a notification.
#include "trayClient/soundPlayer.h"

#include "app/globalOptions.h"

#include <gtest/gtest.h>

using trayClient::errorSound;
using trayClient::newItemSound;
using trayClient::SoundChoice;
using Kind = trayClient::SoundChoice::Kind;

TEST(SoundChoice, NewItemPlaysTheChannelsFileElseTheThemeEventUnlessSoundIsOff) {
    app::GlobalOptions options;
    EXPECT_EQ(newItemSound(options, true, ""), (SoundChoice{Kind::Event, "message-new-instant"}));
    EXPECT_EQ(newItemSound(options, true, "/s/ding.oga"), (SoundChoice{Kind::File, "/s/ding.oga"}));
    EXPECT_EQ(newItemSound(options, false, "/s/ding.oga"), SoundChoice{});
    options.disableAllSound = true;
    EXPECT_EQ(newItemSound(options, true, "/s/ding.oga"), SoundChoice{});
}

TEST(SoundChoice, ErrorPlaysTheDefaultErrorFileElseTheThemeEventWhenAsked) {
    app::GlobalOptions options;
    options.playSoundOnError = true;
    EXPECT_EQ(errorSound(options), (SoundChoice{Kind::Event, "dialog-error"}));
    options.defaultErrorSoundFilename = "/s/oops.wav";
    EXPECT_EQ(errorSound(options), (SoundChoice{Kind::File, "/s/oops.wav"}));
    options.playSoundOnError = false;
    EXPECT_EQ(errorSound(options), SoundChoice{});
    options.playSoundOnError = true;
    options.disableAllSound = true;
    EXPECT_EQ(errorSound(options), SoundChoice{});
}
