#pragma once
// tamsel::expected<T, E>: the result of an operation that creates something:
// either the value or an error (never both, never neither).

#include <type_traits>
#include <utility>
#include <variant>

namespace tamsel {

template <typename E>
class unexpected {
public:
    explicit unexpected(E error) : m_error(std::move(error)) {}
    const E& error() const& { return m_error; }
    E&& error() && { return std::move(m_error); }

private:
    E m_error;
};

template <typename T, typename E>
class expected {
public:
    expected(T value) : m_storage(std::in_place_index<0>, std::move(value)) {}
    expected(unexpected<E> error) : m_storage(std::in_place_index<1>, std::move(error).error()) {}

    bool has_value() const noexcept { return m_storage.index() == 0; }
    explicit operator bool() const noexcept { return has_value(); }

    T& value() & { return std::get<0>(m_storage); }
    const T& value() const& { return std::get<0>(m_storage); }
    T&& value() && { return std::get<0>(std::move(m_storage)); }
    const E& error() const { return std::get<1>(m_storage); }

    T& operator*() & { return value(); }
    const T& operator*() const& { return value(); }
    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }

private:
    std::variant<T, E> m_storage;
};

} // namespace tamsel
