#include "kestro/inspector/clipboard.h"

#include <atomic>

namespace kestro {
namespace {

MemoryClipboard& memoryClipboard() {
    static MemoryClipboard clipboard;
    return clipboard;
}

std::atomic<Clipboard*> installed{nullptr};

// Forwards to the installed clipboard, so that models made before the drawing layer installed
// one still copy to it.
class GeneralClipboard final : public Clipboard {
  public:
    void setString(std::string_view text) override { target().setString(text); }
    std::string string() const override { return target().string(); }

  private:
    static Clipboard& target() {
        Clipboard* c = installed.load(std::memory_order_acquire);
        return c ? *c : memoryClipboard();
    }
};

}  // namespace

Clipboard& Clipboard::general() {
    static GeneralClipboard clipboard;
    return clipboard;
}

void Clipboard::setGeneral(Clipboard* clipboard) {
    installed.store(clipboard, std::memory_order_release);
}

void MemoryClipboard::setString(std::string_view text) {
    std::lock_guard lock(mutex_);
    text_.assign(text);
}

std::string MemoryClipboard::string() const {
    std::lock_guard lock(mutex_);
    return text_;
}

}  // namespace kestro
