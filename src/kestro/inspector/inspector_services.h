#pragma once

#include "kestro/core/notification_center.h"
#include "kestro/facade/kestro_internal.h"
#include "kestro/inspector/clipboard.h"
#include "kestro/inspector/toast_manager.h"
#include "kestro/store/request_store_sqlite.h"

namespace kestro {

/// What the inspector's screens act on. The defaults are the process-wide instances; tests
/// pass a local facade, a store on a temporary file, a recording clipboard and a toast manager
/// on a clock they step. Each must outlive the screens made with it.
struct InspectorServices {
    KestroInternal& facade = Kestro();
    RequestStoreSQLite& store = RequestStoreSQLite::shared();
    Clipboard& clipboard = Clipboard::general();
    ToastManager& toasts = ToastManager::shared();
    NotificationCenter& notifications = NotificationCenter::defaultCenter();
};

}  // namespace kestro
