#include "trayClient/soundPlayer.h"

#include "app/globalOptions.h"
#include "lib/log/log.h"

#include <canberra.h>

namespace trayClient {

namespace {
msglog::MsgGroupRegistration g_soundGroup("Sounds");
} // namespace

SoundChoice newItemSound(const app::GlobalOptions& options, bool playSoundOnNewItem,
                         const std::string& newItemSoundFile) {
    if (options.disableAllSound || !playSoundOnNewItem)
        return {};
    if (!newItemSoundFile.empty())
        return {SoundChoice::Kind::File, newItemSoundFile};
    return {SoundChoice::Kind::Event, "message-new-instant"};
}

SoundChoice errorSound(const app::GlobalOptions& options) {
    if (options.disableAllSound || !options.playSoundOnError)
        return {};
    if (!options.defaultErrorSoundFilename.empty())
        return {SoundChoice::Kind::File, options.defaultErrorSoundFilename};
    return {SoundChoice::Kind::Event, "dialog-error"};
}

CSoundPlayer::~CSoundPlayer() {
    if (m_context)
        ca_context_destroy(m_context);
}

bool CSoundPlayer::open() {
    if (m_context)
        return true;
    if (m_openFailed)
        return false;
    int result = ca_context_create(&m_context);
    if (result == CA_SUCCESS)
        result = ca_context_change_props(m_context, CA_PROP_APPLICATION_NAME, "Pelsu",
                                         CA_PROP_APPLICATION_ID, "pelsu", nullptr);
    if (result == CA_SUCCESS)
        result = ca_context_open(m_context);
    if (result != CA_SUCCESS) {
        PELSU_LOG(g_soundGroup, "No sounds will be played: " << ca_strerror(result));
        if (m_context)
            ca_context_destroy(m_context);
        m_context = nullptr;
        m_openFailed = true;
        return false;
    }
    return true;
}

bool CSoundPlayer::play(const SoundChoice& sound) {
    if (sound.kind == SoundChoice::Kind::None || !open())
        return false;
    const char* property =
        sound.kind == SoundChoice::Kind::File ? CA_PROP_MEDIA_FILENAME : CA_PROP_EVENT_ID;
    int result = ca_context_play(m_context, 0, property, sound.name.c_str(),
                                 CA_PROP_CANBERRA_CACHE_CONTROL, "volatile", nullptr);
    if (result != CA_SUCCESS) {
        PELSU_LOG(g_soundGroup,
                  "Can't play the sound " << sound.name << ": " << ca_strerror(result));
        return false;
    }
    ++m_played;
    return true;
}

} // namespace trayClient
