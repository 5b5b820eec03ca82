#pragma once

// Kestro in an SDL2 host: the host passes each event to processEvent() from its event loop.
// It feeds the inspector's shake detector (Ctrl+Shift+K, and the accelerometer where SDL
// reports one; kestroSheet() itself watches the mouse) and tells Kestro when the application
// comes to the foreground or goes to the background (SDL's application events and the window's
// focus).
//
//   while (SDL_PollEvent(&event)) {
//       ImGui_ImplSDL2_ProcessEvent(&event);
//       kestro::sdl::processEvent(event);
//       ...
//   }
//
// Threads: the host's UI thread (SDL's event thread), which drives Kestro's main queue.

#include <SDL.h>

#include "kestro/core/export.h"
#include "kestro/imgui/image_textures.h"
#include "kestro/inspector/sheet_presenter.h"

namespace kestro::sdl {

/// Passes one event to the shake detector of modifier (default: kestroSheetModifier()) and to
/// the life-cycle notifications. Returns true for the events it takes for itself (the
/// Ctrl+Shift+K chord), which the host may then skip.
KESTRO_API bool processEvent(const SDL_Event& event);
KESTRO_API bool processEvent(const SDL_Event& event, KestroSheetModifier& modifier);

/// Opens the accelerometers SDL knows of, so that their readings arrive as events. Needs
/// SDL_INIT_SENSOR; does nothing where there are none (most desktops).
KESTRO_API int openAccelerometers();

/// Texture hooks for the image previews that make OpenGL 3 textures (the context of the
/// calling thread must be current when previews are drawn).
KESTRO_API imgui::ImageTextureHooks openGL3TextureHooks();

}  // namespace kestro::sdl
