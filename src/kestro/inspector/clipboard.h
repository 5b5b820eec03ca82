#pragma once

#include <mutex>
#include <string>
#include <string_view>

#include "kestro/core/export.h"

namespace kestro {

/// Where the inspector's copy actions put text. The drawing layer installs one backed by the
/// host's clipboard (ImGui's, which SDL backs in an SDL host); until then the general clipboard
/// keeps the text in memory. Tests pass a clipboard of their own to the models. Any thread.
class KESTRO_API Clipboard {
  public:
    virtual ~Clipboard() = default;
    virtual void setString(std::string_view text) = 0;
    virtual std::string string() const = 0;

    /// The process-wide clipboard the models use by default.
    static Clipboard& general();
    /// Replaces what general() forwards to; nullptr goes back to the in-memory clipboard. The
    /// clipboard must outlive its installation.
    static void setGeneral(Clipboard* clipboard);
};

/// A clipboard that only keeps its text.
class KESTRO_API MemoryClipboard : public Clipboard {
  public:
    void setString(std::string_view text) override;
    std::string string() const override;

  private:
    mutable std::mutex mutex_;
    std::string text_;
};

}  // namespace kestro
