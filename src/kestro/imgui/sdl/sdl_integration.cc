#include "kestro/imgui/sdl/sdl_integration.h"

#include <SDL_opengl.h>

#include <chrono>
#include <cstdint>

#include "kestro/core/app_lifecycle_observer.h"
#include "kestro/imgui/kestro_sheet.h"

namespace kestro::sdl {
namespace {

using Clock = ShakeDetector::Clock;

// Several SDL events say the same thing (focus gained, window shown, application foregrounded);
// only a change of state is posted.
enum class Presence { unknown, foreground, background };
Presence gPresence = Presence::unknown;

void setPresence(Presence p) {
    if (p == gPresence) return;
    const bool first = gPresence == Presence::unknown;
    gPresence = p;
    if (first && p == Presence::foreground) return;  // starting up is not a return
    if (p == Presence::foreground) {
        postApplicationWillEnterForeground();
    } else {
        postApplicationDidEnterBackground();
    }
}

}  // namespace

bool processEvent(const SDL_Event& event) { return processEvent(event, kestroSheetModifier()); }

bool processEvent(const SDL_Event& event, KestroSheetModifier& modifier) {
    ShakeDetector& shake = modifier.shakeDetector();
    const Clock::time_point now = Clock::now();
    switch (event.type) {
        case SDL_KEYDOWN: {
            const SDL_Keymod mods = static_cast<SDL_Keymod>(event.key.keysym.mod);
            if (event.key.keysym.sym == SDLK_k && (mods & KMOD_CTRL) && (mods & KMOD_SHIFT) &&
                !event.key.repeat) {
                shake.chord(now);
                return true;
            }
            return false;
        }
        case SDL_SENSORUPDATE: {
            SDL_Sensor* sensor = SDL_SensorFromInstanceID(event.sensor.which);
            if (sensor && SDL_SensorGetType(sensor) == SDL_SENSOR_ACCEL) {
                shake.acceleration(event.sensor.data[0], event.sensor.data[1], event.sensor.data[2],
                                   now);
            }
            return false;
        }
        case SDL_APP_WILLENTERFOREGROUND:
        case SDL_APP_DIDENTERFOREGROUND:
            setPresence(Presence::foreground);
            return false;
        case SDL_APP_WILLENTERBACKGROUND:
        case SDL_APP_DIDENTERBACKGROUND:
            setPresence(Presence::background);
            return false;
        case SDL_WINDOWEVENT:
            switch (event.window.event) {
                case SDL_WINDOWEVENT_FOCUS_GAINED:
                case SDL_WINDOWEVENT_RESTORED:
                    setPresence(Presence::foreground);
                    break;
                case SDL_WINDOWEVENT_FOCUS_LOST:
                case SDL_WINDOWEVENT_MINIMIZED:
                case SDL_WINDOWEVENT_HIDDEN:
                    setPresence(Presence::background);
                    break;
                default:
                    break;
            }
            return false;
        default:
            return false;
    }
}

int openAccelerometers() {
    int opened = 0;
    for (int i = 0; i < SDL_NumSensors(); ++i) {
        if (SDL_SensorGetDeviceType(i) == SDL_SENSOR_ACCEL && SDL_SensorOpen(i)) ++opened;
    }
    return opened;
}

imgui::ImageTextureHooks openGL3TextureHooks() {
    imgui::ImageTextureHooks hooks;
    hooks.create = [](const std::uint8_t* rgba, int width, int height) -> ImTextureID {
        GLuint texture = 0;
        glGenTextures(1, &texture);
        if (texture == 0) return nullptr;
        glBindTexture(GL_TEXTURE_2D, texture);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
        glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, width, height, 0, GL_RGBA, GL_UNSIGNED_BYTE, rgba);
        return reinterpret_cast<ImTextureID>(static_cast<std::uintptr_t>(texture));
    };
    hooks.destroy = [](ImTextureID id) {
        const GLuint texture = static_cast<GLuint>(reinterpret_cast<std::uintptr_t>(id));
        glDeleteTextures(1, &texture);
    };
    return hooks;
}

}  // namespace kestro::sdl
