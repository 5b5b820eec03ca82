#pragma once

// What the inspector's model tests act on: a local facade with its settings in a temporary
// file, a store on a temporary database, a recording clipboard, toasts on a clock the test
// steps, a notification centre of the test's own, and the main queue driven by the test.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "inspector/step_clock.h"
#include "kestro/core/main_queue.h"
#include "kestro/core/settings_store.h"
#include "kestro/inspector/inspector_services.h"

namespace kestro::test {

/// Keeps every text put on it.
class RecordingClipboard : public Clipboard {
  public:
    void setString(std::string_view text) override { copies.emplace_back(text); }
    std::string string() const override { return copies.empty() ? "" : copies.back(); }
    std::vector<std::string> copies;
};

class InspectorFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "kestro-inspector-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
        setenv("KESTRO_HOME", dir_.c_str(), 1);
        getUserDefaults().reopen(dir_ / "settings.json");
        MainQueue::shared().useHostThread();
        store_ = std::make_unique<RequestStoreSQLite>(dir_ / "requests.sqlite");
        facade_ = std::make_unique<KestroInternal>();
    }
    void TearDown() override {
        runMainQueue();
        facade_.reset();
        store_.reset();
        runMainQueue();
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }

    InspectorServices services() {
        return InspectorServices{.facade = *facade_,
                                 .store = *store_,
                                 .clipboard = clipboard_,
                                 .toasts = toasts_,
                                 .notifications = notifications_};
    }
    static void runMainQueue() { MainQueue::shared().runUntilIdle(); }

    std::filesystem::path dir_;
    std::unique_ptr<RequestStoreSQLite> store_;
    std::unique_ptr<KestroInternal> facade_;
    RecordingClipboard clipboard_;
    StepClock clock_;
    ToastManager toasts_{
        [this](auto delay, auto task) { clock_.schedule(delay, std::move(task)); }};
    NotificationCenter notifications_;
};

}  // namespace kestro::test
