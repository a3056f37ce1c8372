// Signals of GObject that run member functions.

#ifndef EXAMPLES_GTK_HOST_SIGNALS_H_
#define EXAMPLES_GTK_HOST_SIGNALS_H_

#include <glib-object.h>

namespace gtk_host {

template <auto kFunction>
struct Slot;

template <typename T, typename Result, typename... Arguments,
          Result (T::*kFunction)(Arguments...)>
struct Slot<kFunction> {
  static Result Run(T* target, Arguments... arguments) {
    return (target->*kFunction)(arguments...);
  }
};

// Runs a member function of `target` whenever `object` emits the signal. It
// takes the signal's arguments without the object, or the first of them. One
// that the signal wants a result of returns gboolean. Disconnect it with
// g_signal_handlers_disconnect_by_data if the object outlives the target.
template <auto kFunction, typename T>
void Connect(gpointer object, const char* signal, T* target) {
  g_signal_connect_swapped(object, signal, G_CALLBACK(&Slot<kFunction>::Run),
                           target);
}

}  // namespace gtk_host

#endif  // EXAMPLES_GTK_HOST_SIGNALS_H_
