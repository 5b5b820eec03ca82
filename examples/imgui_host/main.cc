// An application that draws Dear ImGui gets Kestro's inspector with one include and one call per
// frame: kestro::kestroSheet() after its own windows. The SDL event hook adds Ctrl+Shift+K and
// the accelerometer as shake sources, and tells Kestro when the window loses or regains focus.
//
// Open the inspector with Ctrl+Shift+K or by shaking the mouse (allowed here by
// setDebugWindowInProductionBuilds), or from the dashboard.

#include <SDL.h>
#include <SDL_opengl.h>
#include <backends/imgui_impl_opengl3.h>
#include <backends/imgui_impl_sdl.h>
#include <imgui.h>

#include "kestro/imgui/kestro_sheet.h"          // the inspector
#include "kestro/imgui/sdl/sdl_integration.h"  // optional: SDL shake sources and life cycle
#include "kestro/kestro.h"

int main() {
    SDL_Init(SDL_INIT_VIDEO);
    SDL_Window* window = SDL_CreateWindow("My application", SDL_WINDOWPOS_CENTERED,
                                          SDL_WINDOWPOS_CENTERED, 1100, 750, SDL_WINDOW_OPENGL);
    SDL_GLContext gl = SDL_GL_CreateContext(window);
    ImGui::CreateContext();
    ImGui_ImplSDL2_InitForOpenGL(window, gl);
    ImGui_ImplOpenGL3_Init("#version 130");

    kestro::Kestro().setDebugWindowInProductionBuilds(true);
    kestro::Kestro().initialize("kt-dev-example", kestro::KestroConfig(true, true, true,
                                                                      kestro::LogLevel::info, "dev"));
    for (bool running = true; running;) {
        SDL_Event event;
        while (SDL_PollEvent(&event)) {
            ImGui_ImplSDL2_ProcessEvent(&event);
            kestro::sdl::processEvent(event);
            running = running && event.type != SDL_QUIT;
        }
        ImGui_ImplOpenGL3_NewFrame();
        ImGui_ImplSDL2_NewFrame();
        ImGui::NewFrame();
        ImGui::Begin("My application");
        if (ImGui::Button("Log something")) kestro::Kestro().i("the button was pressed");
        ImGui::End();
        kestro::kestroSheet();  // the inspector, over everything else
        ImGui::Render();
        glClear(GL_COLOR_BUFFER_BIT);
        ImGui_ImplOpenGL3_RenderDrawData(ImGui::GetDrawData());
        SDL_GL_SwapWindow(window);
    }
    ImGui_ImplOpenGL3_Shutdown();
    ImGui_ImplSDL2_Shutdown();
    ImGui::DestroyContext();
    SDL_GL_DeleteContext(gl);
    SDL_DestroyWindow(window);
    SDL_Quit();
}
