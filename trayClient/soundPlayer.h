// Event sounds through libcanberra: a sound file or a freedesktop sound-theme event. Playing
// never fails loudly: without a sound device, or with a file that can't be played, nothing is
// heard and the reason goes to the log.
#pragma once

#include <string>

struct ca_context;

namespace app {
class GlobalOptions;
}

namespace trayClient {

// What to play: nothing, a sound file, or a sound-theme event by its name.
struct SoundChoice {
    enum class Kind { None, File, Event };
    Kind kind = Kind::None;
    std::string name;
    bool operator==(const SoundChoice&) const = default;
};

// The sound of a new item: nothing when "DisableAllSound" is set or the channel's
// "PlaySoundOnNewItem" is off; the channel's "NewItemSoundFile" when it names one; else the
// theme's "message-new-instant".
SoundChoice newItemSound(const app::GlobalOptions& options, bool playSoundOnNewItem,
                         const std::string& newItemSoundFile);
// The sound of an error notification: nothing when "DisableAllSound" is set or
// "PlaySoundOnError" is off; "DefaultErrorSoundFilename" when set; else "dialog-error".
SoundChoice errorSound(const app::GlobalOptions& options);

class CSoundPlayer {
public:
    CSoundPlayer() = default;
    ~CSoundPlayer();
    CSoundPlayer(const CSoundPlayer&) = delete;
    CSoundPlayer& operator=(const CSoundPlayer&) = delete;

    // Starts the sound and returns at once; false (after a log line) when it can't be played.
    // The sound system is opened on the first call, so a program that never plays a sound
    // never loads it.
    bool play(const SoundChoice& sound);
    // How many sounds were started (for the checks of a running client).
    int played() const { return m_played; }

private:
    bool open();

    ca_context* m_context = nullptr;
    bool m_openFailed = false;
    int m_played = 0;
};

} // namespace trayClient
