#include "kestro/inspector/sheet_presenter.h"

namespace kestro {

KestroSheetModifier::KestroSheetModifier(InspectorServices services)
    : services_(services),
      canShake_(services_.facade.useDebugWindowInProductionBuilds() ||
                services_.facade.isTestFlightBuild()) {
    if (canShake_) shakeDetector_.onShake = [this] { onShake(); };
    openObserver_ = services_.notifications.addObserver(kOpenKestroSheet,
                                                        [this](const Notification&) { present(); });
}

KestroSheetModifier::~KestroSheetModifier() = default;

void KestroSheetModifier::onShake() {
    // Without a key in use there is nothing to inspect yet.
    if (!services_.facade.getAPIKey().empty()) present();
}

void KestroSheetModifier::present() {
    isSheetPresented_ = true;
    sync();
}

void KestroSheetModifier::dismiss() {
    isSheetPresented_ = false;
    sync();
}

void KestroSheetModifier::sync() {
    if (isSheetPresented_ && !sheet_) {
        sheet_ = std::make_unique<KestroControlSheet>(isSheetPresented_, services_);
        sheet_->form().onAppear();
    } else if (!isSheetPresented_) {
        sheet_.reset();
    }
}

}  // namespace kestro
