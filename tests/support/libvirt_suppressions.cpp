// Suppresses the thread sanitizer's reports about libvirt itself. GLib's locks are futexes and libvirt counts
// references with GLib's atomics, both in libraries built without the sanitizer: it sees the memory accesses but not
// their order. Only accesses by these libraries themselves are suppressed; the stack of an access by our code, called
// back by them, does not name them.
extern "C" const char* __tsan_default_suppressions();

extern "C" const char* __tsan_default_suppressions() {
  return
      // Wake-ups and lists of the main loop, which its lock guards.
      "race:libglib-2.0.so.0\n"
      // An object is freed with its mutex by the thread that drops the last reference, after another thread has
      // unlocked it.
      "race:libvirt.so.0\n"
      // The metadata of such an object is a tree of libxml2, which only libvirt uses here.
      "race:libxml2.so.2\n"
      // A connection that cannot be opened is freed while it is locked.
      "mutex:libvirt.so.0\n"
      // The same for QEMU's driver; it also takes the locks of guests and of their list in two orders, all of them its
      // own.
      "race:libvirt_driver_qemu.so\n"
      "mutex:libvirt_driver_qemu.so\n"
      "deadlock:virDomainObj\n"
      // The locks of a serial line's stream and of the guest's list of consoles, both its own as well.
      "deadlock:virFDStreamSetInternalCloseCb\n";
}
