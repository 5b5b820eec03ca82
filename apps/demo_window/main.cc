// The windowed Kestro demo host: an SDL2 + OpenGL 3 window drawing Dear ImGui, with Kestro's
// inspector over its own UI. Its buttons log, call the development service's sample API through
// Kestro and record events; a shake (Ctrl+Shift+K, or the mouse shaken from side to side) or
// the dashboard's "open_kestro_sheet" command opens the inspector.
//
//   kestro-demo-window [--key KEY] [--screenshots DIR]
//
// The key defaults to $KESTRO_API_KEY, else "kt-dev-demo". --screenshots DIR makes some
// traffic, walks through the inspector's screens (settings, the list, the details of a JSON
// response scrolled to its body, a custom event's payload) writing one PNG of the window for
// each into DIR, and exits: 0 when every screenshot was written.
//
// The main queue runs on this UI thread: useHostThread() before initialising Kestro, drain()
// once per frame.

#include <SDL.h>
#include <SDL_opengl.h>
#include <backends/imgui_impl_opengl3.h>
#include <backends/imgui_impl_sdl.h>
#include <imgui.h>
#include <stb_image_write.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "kestro/core/main_queue.h"
#include "kestro/imgui/fonts.h"
#include "kestro/imgui/kestro_sheet.h"
#include "kestro/imgui/sdl/sdl_integration.h"
#include "kestro/kestro.h"
#include "kestro/network/http.h"
#include "kestro/store/request_store_sqlite.h"

namespace {

using namespace kestro;
using Clock = std::chrono::steady_clock;

struct Options {
    std::string key;
    std::string screenshots;  // empty: interactive
};

bool parseOptions(int argc, char** argv, Options* o) {
    const char* envKey = std::getenv("KESTRO_API_KEY");
    o->key = envKey && *envKey ? envKey : "kt-dev-demo";
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--key" && i + 1 < argc) {
            o->key = argv[++i];
        } else if (arg == "--screenshots" && i + 1 < argc) {
            o->screenshots = argv[++i];
        } else {
            return false;
        }
    }
    return true;
}

// What the demo's own calls answered, for its window.
struct Activity {
    std::atomic<int> inFlight{0};
    std::atomic<int> answered{0};
};

void call(Activity& activity, const std::string& url, bool post = false) {
    activity.inFlight.fetch_add(1);
    auto done = [&activity](const http::Result&) {
        activity.answered.fetch_add(1);
        activity.inFlight.fetch_sub(1);
    };
    if (post) {
        http::postJSON(
            url,
            boost::json::object{{"from", "demo window"}, {"items", boost::json::array{1, 2, 3}}},
            done);
    } else {
        http::get(url, done);
    }
}

void makeTraffic(Activity& activity, const std::string& base) {
    Kestro().i("demo window", "opened the basket");
    Kestro().w("cache is", 93.5, "% full");
    Kestro().e("payment failed with code", 402);
    call(activity, base + "/sample/users");
    call(activity, base + "/sample/echo", true);
    call(activity, base + "/sample/image.png");
    call(activity, base + "/sample/status/404");
    Kestro().logEvent("checkout_started", "commerce",
                      {{"items", 3}, {"total", 42.5}, {"coupon", nullptr}});
}

void drawHostWindow(Activity& activity, const std::string& base) {
    ImGui::SetNextWindowPos(ImVec2(20, 20), ImGuiCond_FirstUseEver);
    ImGui::SetNextWindowSize(ImVec2(380, 0), ImGuiCond_FirstUseEver);
    ImGui::Begin("Kestro demo");
    ImGui::TextWrapped(
        "This window is the host application. Its buttons make items for Kestro "
        "to capture.");
    ImGui::Separator();
    if (ImGui::Button("Log a line")) Kestro().i("the demo's button was pressed");
    ImGui::SameLine();
    if (ImGui::Button("Log an error")) Kestro().e("something went wrong in the demo");
    if (ImGui::Button("GET /sample/users")) call(activity, base + "/sample/users");
    ImGui::SameLine();
    if (ImGui::Button("POST /sample/echo")) call(activity, base + "/sample/echo", true);
    if (ImGui::Button("GET /sample/image.png")) call(activity, base + "/sample/image.png");
    ImGui::SameLine();
    if (ImGui::Button("GET /sample/status/404")) call(activity, base + "/sample/status/404");
    if (ImGui::Button("Record an event")) {
        Kestro().logEvent("button_tapped", "demo", {{"button", "Record an event"}});
    }
    ImGui::Separator();
    ImGui::Text("Stored items: %zu", RequestStoreSQLite::shared().requests().size());
    ImGui::Text("Answers: %d (%d in flight)", activity.answered.load(), activity.inFlight.load());
    ImGui::Text("Dashboard link: %s", Kestro().isConnectedToWs() ? "up" : "down");
    ImGui::Separator();
    ImGui::TextWrapped(
        "Open the inspector: press Ctrl+Shift+K, shake the mouse from side to "
        "side, or send open_kestro_sheet from the dashboard.");
    if (ImGui::Button("Open the inspector")) kestroSheetModifier().present();
    ImGui::End();
}

// The window's pixels as a PNG (rows flipped: OpenGL reads bottom-up).
bool writeScreenshot(SDL_Window* window, const std::filesystem::path& path) {
    int w = 0, h = 0;
    SDL_GL_GetDrawableSize(window, &w, &h);
    std::vector<unsigned char> pixels(static_cast<std::size_t>(w) * h * 4);
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    glReadBuffer(GL_BACK);
    glReadPixels(0, 0, w, h, GL_RGBA, GL_UNSIGNED_BYTE, pixels.data());
    std::vector<unsigned char> flipped(pixels.size());
    const std::size_t row = static_cast<std::size_t>(w) * 4;
    for (int y = 0; y < h; ++y) {
        std::copy_n(&pixels[(h - 1 - y) * row], row, &flipped[y * row]);
    }
    const bool ok =
        stbi_write_png(path.c_str(), w, h, 4, flipped.data(), static_cast<int>(row)) != 0;
    std::printf("demo │ screenshot %s: %s\n", path.c_str(), ok ? "written" : "FAILED");
    return ok;
}

// The screenshot walk: each step waits for its condition (at most its frames), lets the screen
// settle for a few frames, then takes its picture.
class ScreenshotTour {
  public:
    ScreenshotTour(std::filesystem::path dir, Activity& activity, std::string base)
        : dir_(std::move(dir)), activity_(activity), base_(std::move(base)) {}

    // Called before ImGui::NewFrame(): once the top of the details (the request and the
    // answer's timings) has been taken, scrolls them down to the JSON body, as a wheel turned
    // over them would.
    void beforeNewFrame(ImGuiIO& io) {
        if (step_ == 4 && frame_ >= 20 && frame_ < 24) {
            io.MousePos = ImVec2(io.DisplaySize.x * 0.5f, io.DisplaySize.y * 0.5f);
            io.MouseWheel = -5.0f;
        }
    }

    // Called after the frame is drawn, before it is shown. Returns false when the tour is over.
    bool afterFrame(SDL_Window* window) {
        ++frame_;
        switch (step_) {
            case 0:  // traffic, and its answers
                makeTraffic(activity_, base_);
                next(1);
                return true;
            case 1:
                if (activity_.inFlight.load() == 0 && frame_ > 30) {
                    kestroSheetModifier().present();
                    next(2);
                }
                return within(600);
            case 2:
                if (frame_ > 10) {
                    shoot(window, "inspector-settings.png");
                    kestroSheetModifier().sheet()->form().tapOpenLogs();
                    next(3);
                }
                return true;
            case 3:
                if (frame_ > 10) {
                    shoot(window, "inspector-list.png");
                    openJSONResponse();
                    next(4);
                }
                return true;
            case 4:
                if (frame_ == 15) shoot(window, "inspector-timings.png");
                // The JSON view lays its document out off the UI thread: a few frames.
                if (frame_ > 40) {
                    shoot(window, "inspector-details.png");
                    openEvent();
                    next(5);
                }
                return true;
            case 5:
                if (frame_ > 30) {
                    shoot(window, "inspector-event.png");
                    next(6);
                }
                return true;
            default:
                return false;
        }
    }
    bool failed() const { return failed_ || shots_ != 5; }

  private:
    void next(int step) {
        step_ = step;
        frame_ = 0;
    }
    bool within(int frames) {
        if (frame_ <= frames) return true;
        std::printf("demo │ the screenshot tour timed out at step %d\n", step_);
        failed_ = true;
        return false;
    }
    void shoot(SDL_Window* window, const char* name) {
        if (writeScreenshot(window, dir_ / name)) ++shots_;
    }
    // The details of the list of users: a GET whose response is JSON.
    void openJSONResponse() {
        RequestsListModel* list = kestroSheetModifier().sheet()->form().logsList();
        if (!list) return;
        for (std::size_t row = 0; row < list->rowCount(); ++row) {
            const auto* r = list->item(row).asNetworkRequest();
            if (r && r->details.request && r->details.response &&
                r->details.request->url.ends_with("/sample/users")) {
                list->select(row);
                return;
            }
        }
        std::printf("demo │ no answered GET /sample/users to show\n");
        failed_ = true;
    }

    // The details of the custom event, whose payload is JSON.
    void openEvent() {
        RequestsListModel* list = kestroSheetModifier().sheet()->form().logsList();
        if (!list) return;
        list->dismissDetails();
        for (std::size_t row = 0; row < list->rowCount(); ++row) {
            if (list->item(row).asCustomEvent()) {
                list->select(row);
                return;
            }
        }
        failed_ = true;
    }

    std::filesystem::path dir_;
    Activity& activity_;
    std::string base_;
    int step_ = 0;
    int frame_ = 0;
    int shots_ = 0;
    bool failed_ = false;
};

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parseOptions(argc, argv, &options)) {
        std::fprintf(stderr, "usage: kestro-demo-window [--key KEY] [--screenshots DIR]\n");
        return 2;
    }
    if (SDL_Init(SDL_INIT_VIDEO | SDL_INIT_TIMER) != 0) {
        std::fprintf(stderr, "kestro-demo-window: no display (%s)\n", SDL_GetError());
        return 3;
    }
    if (SDL_InitSubSystem(SDL_INIT_SENSOR) == 0) sdl::openAccelerometers();
    SDL_GL_SetAttribute(SDL_GL_CONTEXT_MAJOR_VERSION, 3);
    SDL_GL_SetAttribute(SDL_GL_CONTEXT_MINOR_VERSION, 0);
    SDL_GL_SetAttribute(SDL_GL_DOUBLEBUFFER, 1);
    SDL_Window* window =
        SDL_CreateWindow("Kestro demo", SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED, 1200, 800,
                         SDL_WINDOW_OPENGL | SDL_WINDOW_RESIZABLE | SDL_WINDOW_ALLOW_HIGHDPI);
    SDL_GLContext gl = window ? SDL_GL_CreateContext(window) : nullptr;
    if (!gl) {
        std::fprintf(stderr, "kestro-demo-window: no OpenGL 3 window (%s)\n", SDL_GetError());
        SDL_Quit();
        return 3;
    }
    SDL_GL_MakeCurrent(window, gl);
    SDL_GL_SetSwapInterval(options.screenshots.empty() ? 1 : 0);

    IMGUI_CHECKVERSION();
    ImGui::CreateContext();
    ImGuiIO& io = ImGui::GetIO();
    io.IniFilename = nullptr;
    imgui::Fonts::install(*io.Fonts);
    ImGui_ImplSDL2_InitForOpenGL(window, gl);
    ImGui_ImplOpenGL3_Init("#version 130");
    imgui::setImageTextureHooks(sdl::openGL3TextureHooks());
    imgui::setInspectorOpenURL([](const std::string& url) { SDL_OpenURL(url.c_str()); });

    // Kestro: main-queue work on this thread, then the key and configuration.
    MainQueue::shared().useHostThread();
    Kestro().setDebugWindowInProductionBuilds(true);  // a shake may open the inspector
    Kestro().initialize(options.key, KestroConfig(true, true, true, LogLevel::info, "dev"));
    const std::string base = Kestro().getAPIEndpoint();
    std::printf("demo │ Kestro %s, device %s, service %s\n", Kestro().getVersion().c_str(),
                Kestro().deviceUUID().c_str(), base.c_str());
    std::printf(
        "demo │ Ctrl+Shift+K or shaking the mouse opens the inspector; so does\n"
        "demo │   kestro-devservice send %s open_kestro_sheet\n",
        Kestro().deviceUUID().c_str());
    std::fflush(stdout);

    Activity activity;
    std::optional<ScreenshotTour> tour;
    if (!options.screenshots.empty()) {
        std::filesystem::create_directories(options.screenshots);
        tour.emplace(options.screenshots, activity, base);
    }

    bool running = true;
    const auto deadline = Clock::now() + std::chrono::seconds(60);
    while (running) {
        SDL_Event event;
        while (SDL_PollEvent(&event)) {
            ImGui_ImplSDL2_ProcessEvent(&event);
            if (sdl::processEvent(event)) continue;
            if (event.type == SDL_QUIT) running = false;
        }
        MainQueue::shared().drain();

        ImGui_ImplOpenGL3_NewFrame();
        ImGui_ImplSDL2_NewFrame();
        if (tour) tour->beforeNewFrame(io);
        ImGui::NewFrame();
        drawHostWindow(activity, base);
        kestroSheet();
        ImGui::Render();
        int w = 0, h = 0;
        SDL_GL_GetDrawableSize(window, &w, &h);
        glViewport(0, 0, w, h);
        glClearColor(0.12f, 0.13f, 0.15f, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT);
        ImGui_ImplOpenGL3_RenderDrawData(ImGui::GetDrawData());
        if (tour && (!tour->afterFrame(window) || Clock::now() > deadline)) running = false;
        SDL_GL_SwapWindow(window);
    }

    const int status = tour && tour->failed() ? 1 : 0;
    ImGui_ImplOpenGL3_Shutdown();
    ImGui_ImplSDL2_Shutdown();
    ImGui::DestroyContext();
    SDL_GL_DeleteContext(gl);
    SDL_DestroyWindow(window);
    SDL_Quit();
    PrintInterceptor::flush();
    return status;
}
