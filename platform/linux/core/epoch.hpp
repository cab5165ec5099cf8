// Reclamation of data read without a lock (epoch based): a writer publishes
// a new version through an atomic pointer and retires the old one; readers
// hold a Pin while they use what they loaded. A retired version is freed
// once every pin that could have loaded it is gone. A pin costs a store to
// a slot of the reading thread's own (no shared cache line, no lock); the
// world model's tables are read this way on the packet path.
#pragma once

#include <cstdint>

namespace platform::internal::epoch {

// While a pin lives on a thread, what the thread loads from a published
// pointer stays valid. Pins nest.
class Pin {
public:
    Pin();
    ~Pin();
    Pin(const Pin &) = delete;
    Pin &operator=(const Pin &) = delete;

private:
    void *slot_;
};

// Frees p with release(p) once no pin that could have loaded it remains;
// the caller has already replaced every published pointer to p.
void Retire(void *p, void (*release)(void *));

}  // namespace platform::internal::epoch
