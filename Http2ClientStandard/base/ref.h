#ifndef HTTP2CLIENTSTANDARD_BASE_REF_H
#define HTTP2CLIENTSTANDARD_BASE_REF_H

#include <atomic>
#include <cstdint>
#include <utility>

namespace h2 {

// An object that several threads share: it goes when the last Ref to it goes. Not copyable.
class RefCounted {
public:
    RefCounted() = default;
    RefCounted(const RefCounted&) = delete;
    RefCounted& operator=(const RefCounted&) = delete;

    // Whether the caller's Ref is the only one. What other holders did before they let go is then
    // visible to the caller.
    bool unique() const { return m_count.load(std::memory_order_acquire) == 1; }

protected:
    virtual ~RefCounted() = default;

private:
    template <typename T>
    friend class Ref;

    void retain() const { m_count.fetch_add(1, std::memory_order_relaxed); }
    void release() const {
        if (m_count.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

    mutable std::atomic<uint32_t> m_count{0};
};

// Keeps a RefCounted object alive. A plain pointer to one may be made a Ref at any time.
template <typename T>
class Ref {
public:
    Ref() = default;
    explicit Ref(T* object) : m_object(object) {
        if (m_object != nullptr) m_object->RefCounted::retain();
    }
    Ref(const Ref& other) : Ref(other.m_object) {}
    Ref(Ref&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
    template <typename Derived>
    Ref(const Ref<Derived>& other) : Ref(other.get()) {}
    Ref& operator=(Ref other) noexcept {
        std::swap(m_object, other.m_object);
        return *this;
    }
    // clang-analyzer does not follow the count.
    // NOLINTBEGIN(clang-analyzer-cplusplus.NewDelete)
    ~Ref() {
        if (m_object != nullptr) m_object->RefCounted::release();
    }

    T* get() const { return m_object; }
    T& operator*() const { return *m_object; }
    T* operator->() const { return m_object; }
    // NOLINTEND(clang-analyzer-cplusplus.NewDelete)
    explicit operator bool() const { return m_object != nullptr; }

private:
    T* m_object = nullptr;
};

template <typename T, typename... Arguments>
Ref<T> makeRef(Arguments&&... arguments) {
    return Ref<T>(new T(std::forward<Arguments>(arguments)...));
}

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_BASE_REF_H
