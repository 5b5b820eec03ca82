// Kestro's JSON viewer in an SDL2 + OpenGL 3 window.
//
//   json_viewer [file.json] [--search TEXT] [--fold LINE] [--no-wrap]
//               [--screenshot out.png] [--size WIDTHxHEIGHT]
//
// Without a file it shows a sample API response. With --screenshot it draws until the
// document is shown, writes the window's pixels to a PNG and exits (for running under Xvfb).
// Links open with the desktop's browser (SDL_OpenURL).

#include <SDL.h>
#include <SDL_opengl.h>
#include <backends/imgui_impl_opengl3.h>
#include <backends/imgui_impl_sdl.h>
#include <imgui.h>
#include <stb_image_write.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "kestro/core/main_queue.h"
#include "kestro/imgui/fonts.h"
#include "kestro/imgui/json_viewer_view.h"

namespace {

struct Options {
    std::string file = KESTRO_EXAMPLE_SAMPLE;
    std::string search;
    int fold = 0;
    bool wrap = true;
    std::string screenshot;
    int width = 1100;
    int height = 720;
};

Options parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto next = [&] { return i + 1 < argc ? std::string(argv[++i]) : std::string(); };
        if (a == "--search") {
            o.search = next();
        } else if (a == "--fold") {
            o.fold = std::atoi(next().c_str());
        } else if (a == "--no-wrap") {
            o.wrap = false;
        } else if (a == "--screenshot") {
            o.screenshot = next();
        } else if (a == "--size") {
            std::sscanf(next().c_str(), "%dx%d", &o.width, &o.height);
        } else {
            o.file = a;
        }
    }
    return o;
}

bool writeScreenshot(const std::string& path, int width, int height) {
    std::vector<unsigned char> pixels(static_cast<std::size_t>(width) * height * 4);
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, pixels.data());
    // OpenGL's rows run bottom-up; PNG's top-down.
    stbi_flip_vertically_on_write(1);
    return stbi_write_png(path.c_str(), width, height, 4, pixels.data(), width * 4) != 0;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    std::ifstream in(options.file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", options.file.c_str());
        return 1;
    }
    std::ostringstream text;
    text << in.rdbuf();

    // The UI thread drives Kestro's main queue: the viewer's model works there.
    kestro::MainQueue::shared().useHostThread();

    if (SDL_Init(SDL_INIT_VIDEO) != 0) {
        std::fprintf(stderr, "SDL_Init: %s\n", SDL_GetError());
        return 1;
    }
    SDL_GL_SetAttribute(SDL_GL_CONTEXT_MAJOR_VERSION, 3);
    SDL_GL_SetAttribute(SDL_GL_CONTEXT_MINOR_VERSION, 0);
    SDL_GL_SetAttribute(SDL_GL_DOUBLEBUFFER, 1);
    SDL_Window* window = SDL_CreateWindow(
        "Kestro JSON viewer", SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED, options.width,
        options.height, SDL_WINDOW_OPENGL | SDL_WINDOW_RESIZABLE | SDL_WINDOW_ALLOW_HIGHDPI);
    SDL_GLContext gl = window ? SDL_GL_CreateContext(window) : nullptr;
    if (!gl) {
        std::fprintf(stderr, "no OpenGL window: %s\n", SDL_GetError());
        SDL_Quit();
        return 1;
    }
    SDL_GL_MakeCurrent(window, gl);
    SDL_GL_SetSwapInterval(1);

    ImGui::CreateContext();
    ImGuiIO& io = ImGui::GetIO();
    io.IniFilename = nullptr;
    ImGui::StyleColorsDark();
    kestro::imgui::Fonts::install(*io.Fonts);  // before the backend uploads the atlas
    ImGui_ImplSDL2_InitForOpenGL(window, gl);
    ImGui_ImplOpenGL3_Init("#version 130");

    kestro::JSONViewerView view;
    view.settings.automaticWrapEnabled = options.wrap;
    view.settings.openURL = [](const std::string& url) { SDL_OpenURL(url.c_str()); };
    view.setJSON(text.str());

    bool running = true;
    bool prepared = false;
    int shownFrames = 0;
    int status = 0;
    for (int frame = 0; running; ++frame) {
        SDL_Event event;
        while (SDL_PollEvent(&event)) {
            ImGui_ImplSDL2_ProcessEvent(&event);
            if (event.type == SDL_QUIT) running = false;
        }
        kestro::MainQueue::shared().drain();
        if (view.isShowing() && !prepared) {
            prepared = true;
            if (options.fold > 0) view.model()->handleZoomClick(options.fold - 1);
            if (!options.search.empty()) view.search(options.search);
        }

        ImGui_ImplOpenGL3_NewFrame();
        ImGui_ImplSDL2_NewFrame();
        ImGui::NewFrame();
        const ImGuiViewport* viewport = ImGui::GetMainViewport();
        ImGui::SetNextWindowPos(viewport->WorkPos);
        ImGui::SetNextWindowSize(viewport->WorkSize);
        ImGui::Begin("JSON", nullptr,
                     ImGuiWindowFlags_NoDecoration | ImGuiWindowFlags_NoMove |
                         ImGuiWindowFlags_NoSavedSettings);
        kestro::imgui::Text(kestro::imgui::TextStyle::headline,
                            "📂 " + options.file.substr(options.file.find_last_of('/') + 1));
        view.DrawContents();
        ImGui::End();
        ImGui::Render();

        int width = 0, height = 0;
        SDL_GL_GetDrawableSize(window, &width, &height);
        glViewport(0, 0, width, height);
        glClearColor(0.1f, 0.1f, 0.11f, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT);
        ImGui_ImplOpenGL3_RenderDrawData(ImGui::GetDrawData());

        if (!options.screenshot.empty()) {
            // A few frames after the document and any search are shown, so that the layout
            // has settled; give up after ten seconds' worth of frames.
            if (view.isShowing() && !kestro::MainQueue::shared().pending()) ++shownFrames;
            if (shownFrames >= 30 || frame > 600) {
                if (!writeScreenshot(options.screenshot, width, height)) status = 1;
                if (shownFrames < 30) status = 1;
                running = false;
            }
        }
        SDL_GL_SwapWindow(window);
    }

    ImGui_ImplOpenGL3_Shutdown();
    ImGui_ImplSDL2_Shutdown();
    ImGui::DestroyContext();
    SDL_GL_DeleteContext(gl);
    SDL_DestroyWindow(window);
    SDL_Quit();
    return status;
}
