// A reference that does not keep its object, as the user data of a callback.
#pragma once

#include <glib-object.h>

namespace kestrelbridge::rtsp {

// Freed with FreeWeak.
inline gpointer NewWeak(gpointer object) {
  auto* const weak = g_new0(GWeakRef, 1);
  g_weak_ref_init(weak, object);
  return weak;
}

inline void FreeWeak(gpointer weak) {
  g_weak_ref_clear(static_cast<GWeakRef*>(weak));
  g_free(weak);
}

// Calls `use` with the object, which stays as long, if it still is.
template <typename Object, typename Use>
void WithObject(gpointer weak, Use use) {
  if (gpointer object = g_weak_ref_get(static_cast<GWeakRef*>(weak)); object != nullptr) {
    use(reinterpret_cast<Object*>(object));
    g_object_unref(object);
  }
}

}  // namespace kestrelbridge::rtsp
