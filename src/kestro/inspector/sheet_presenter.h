#pragma once

#include <memory>

#include "kestro/core/export.h"
#include "kestro/inspector/inspector_services.h"
#include "kestro/inspector/settings_form.h"
#include "kestro/inspector/shake_detector.h"

namespace kestro {

/// Decides when the inspector shows over the host: on a shake, in builds where shaking is
/// allowed and only once an API key is in use, and whenever "openKestroSheet" is posted (the
/// dashboard's command), allowed or not. One per host view; made on the main queue and used
/// only there.
class KESTRO_API KestroSheetModifier {
  public:
    explicit KestroSheetModifier(InspectorServices services = {});
    ~KestroSheetModifier();
    KestroSheetModifier(const KestroSheetModifier&) = delete;
    KestroSheetModifier& operator=(const KestroSheetModifier&) = delete;

    /// Fixed when the modifier is made: the stored debug-window switch, else whether this is a
    /// test-distribution build.
    bool canShake() const { return canShake_; }
    bool isSheetPresented() const { return isSheetPresented_; }

    /// Where shake sources report. When shaking is not allowed no shake reaches the sheet.
    ShakeDetector& shakeDetector() { return shakeDetector_; }

    /// Shows the sheet (a new control sheet each time it opens).
    void present();
    /// Closes the sheet and discards its screens.
    void dismiss();
    /// The control sheet while it is shown.
    KestroControlSheet* sheet() { return sheet_.get(); }
    const InspectorServices& services() const { return services_; }

  private:
    void onShake();
    void sync();

    InspectorServices services_;
    bool canShake_;
    bool isSheetPresented_ = false;
    ShakeDetector shakeDetector_;
    std::unique_ptr<KestroControlSheet> sheet_;
    ObserverToken openObserver_;
};

}  // namespace kestro
