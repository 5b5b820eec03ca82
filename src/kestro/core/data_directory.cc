#include "kestro/core/data_directory.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <system_error>

namespace kestro {
namespace {

std::mutex gIdMutex;
std::string gApplicationId;  // empty: the executable's name

std::string executableName() {
    std::error_code ec;
    auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (!ec && !exe.filename().empty()) return exe.filename().string();
    return "app";
}

// An id is one path component: separators and a leading dot would escape the folder.
std::string sanitised(std::string id) {
    for (char& c : id)
        if (c == '/' || c == '\0') c = '_';
    if (id.empty() || id == "." || id == "..") id = "app";
    return id;
}

std::filesystem::path homeDirectory() {
    if (const char* home = std::getenv("HOME"); home && *home) return home;
    if (const passwd* pw = getpwuid(getuid()); pw && pw->pw_dir) return pw->pw_dir;
    return std::filesystem::temp_directory_path();
}

}  // namespace

std::string applicationId() {
    std::lock_guard lock(gIdMutex);
    return gApplicationId.empty() ? sanitised(executableName()) : gApplicationId;
}

void setApplicationId(std::string id) {
    std::lock_guard lock(gIdMutex);
    gApplicationId = id.empty() ? std::string() : sanitised(std::move(id));
}

std::filesystem::path dataDirectory() {
    std::filesystem::path dir;
    if (const char* home = std::getenv("KESTRO_HOME"); home && *home) {
        dir = home;
    } else if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg && xdg[0] == '/') {
        dir = std::filesystem::path(xdg) / "kestro" / applicationId();
    } else {
        dir = homeDirectory() / ".local" / "share" / "kestro" / applicationId();
    }
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    return dir;
}

}  // namespace kestro
