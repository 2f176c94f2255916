#include "platform/qx_webapi.h"

#include <atomic>

namespace {
std::atomic<QXWebAPICallback> g_callback{nullptr};
}

void setWebAPICallback(QXWebAPICallback callback) { g_callback.store(callback); }

QXWebAPICallback getWebAPICallback() { return g_callback.load(); }
