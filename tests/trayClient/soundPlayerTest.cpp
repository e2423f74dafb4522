// Which sound goes with a notification, and playing without a sound device stays quiet.
#include "trayClient/soundPlayer.h"

#include "app/globalOptions.h"

#include <gtest/gtest.h>

using trayClient::CSoundPlayer;
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

TEST(SoundPlayer, PlayingNothingOrAMissingFileReturnsWithoutPlaying) {
    CSoundPlayer player;
    EXPECT_FALSE(player.play(SoundChoice{}));
    // Whether or not this machine has a sound device, a file that does not exist is not
    // played, and nothing is thrown.
    EXPECT_FALSE(player.play(SoundChoice{Kind::File, "/nonexistent/pelsu-test-sound.oga"}));
    EXPECT_EQ(player.played(), 0);
}
