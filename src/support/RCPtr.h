#pragma once
// Counted pointer to an RCObject. Copies add a reference, destruction drops it.

#include "support/RCObject.h"

#include <cstddef>
#include <type_traits>
#include <utility>

template <typename T>
class RCPtr {
public:
    RCPtr() noexcept = default;
    RCPtr(std::nullptr_t) noexcept {}
    // Takes a new reference on `object`.
    explicit RCPtr(T* object) : m_object(object)
    {
        if (m_object)
            m_object->AddRef();
    }
    RCPtr(const RCPtr& other) : RCPtr(other.m_object) {}
    RCPtr(RCPtr&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
    template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    RCPtr(const RCPtr<U>& other) : RCPtr(other.get())
    {
    }
    template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    RCPtr(RCPtr<U>&& other) noexcept : m_object(other.Detach())
    {
    }
    ~RCPtr()
    {
        if (m_object)
            m_object->Release();
    }

    RCPtr& operator=(RCPtr other) noexcept
    {
        std::swap(m_object, other.m_object);
        return *this;
    }

    T* get() const noexcept { return m_object; }
    T* operator->() const noexcept { return m_object; }
    T& operator*() const noexcept { return *m_object; }
    explicit operator bool() const noexcept { return m_object != nullptr; }

    void reset() noexcept { RCPtr().swap(*this); }
    void swap(RCPtr& other) noexcept { std::swap(m_object, other.m_object); }

    // Hands the reference to the caller, who must Release it.
    [[nodiscard]] T* Detach() noexcept { return std::exchange(m_object, nullptr); }
    // Adopts a reference the caller already holds.
    static RCPtr Adopt(T* object) noexcept
    {
        RCPtr p;
        p.m_object = object;
        return p;
    }

    friend bool operator==(const RCPtr& a, const RCPtr& b) noexcept { return a.m_object == b.m_object; }
    friend bool operator==(const RCPtr& a, std::nullptr_t) noexcept { return a.m_object == nullptr; }

private:
    T* m_object = nullptr;
};

// Allocates a T and returns the first reference to it.
template <typename T, typename... Args>
RCPtr<T> MakeRC(Args&&... args)
{
    return RCPtr<T>(new T(std::forward<Args>(args)...));
}
