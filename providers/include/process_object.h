// A process-wide object of the plug-in: made on first use, destroyed only
// when the plug-in's unload routine releases it, never by the exit-time
// destructors of the C++ runtime.
//
// Those destructors run when the process exits, before the unload routine of
// a library that is still loaded, and in an order no library controls. The
// coordinator deletes its nodes in the unload routine, and they trace, report
// and close driver handles while they go; every object they use must still be
// there, and the unload routine releases them afterwards in its own order.
//
// Thread safety: get() may be called from any thread; release() only when no
// other thread uses the object (at unload).
#ifndef PROVIDERS_INCLUDE_PROCESS_OBJECT_H_
#define PROVIDERS_INCLUDE_PROCESS_OBJECT_H_

#include <atomic>
#include <mutex>
#include <type_traits>

template <class T>
class ProcessObject {
  public:
    constexpr ProcessObject() = default;
    ProcessObject(const ProcessObject&) = delete;
    ProcessObject& operator=(const ProcessObject&) = delete;

    // The object, value-initialised on the first call (and again on the first
    // call after release()). Throws what T's constructor or new throws.
    T& get() {
        if (T* object = object_.load(std::memory_order_acquire); object != nullptr) {
            return *object;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        T* object = object_.load(std::memory_order_relaxed);
        if (object == nullptr) {
            object = new T();
            object_.store(object, std::memory_order_release);
        }
        return *object;
    }

    // The object, or null when it was never made or has been released.
    T* peek() const { return object_.load(std::memory_order_acquire); }

    // Destroys the object; the next get() makes a new one.
    void release() { delete object_.exchange(nullptr, std::memory_order_acq_rel); }

  private:
    std::atomic<T*> object_{nullptr};
    std::mutex mutex_;
};

// Nothing for the exit-time destructors to run: a ProcessObject declared
// `constinit` at namespace scope is neither constructed nor destroyed by the
// runtime.
static_assert(std::is_trivially_destructible_v<ProcessObject<int>>,
              "ProcessObject must not register an exit-time destructor");

#endif  // PROVIDERS_INCLUDE_PROCESS_OBJECT_H_
