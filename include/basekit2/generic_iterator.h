// The iterator value object through which the library hands out lists, and its handlers.
#pragma once

#include <memory>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "basekit2/assertion.h"

namespace basekit2 {

/// Capability bits of a handler.
enum iterator_capability_t : unsigned int {
    icResettable = 1,    ///< reset() moves to the beginning
    icBidirectional = 2, ///< prev() moves back
};

/// Polymorphic position over a list. Slot order is a binary contract.
template <class T>
class iterator_handler_t {
public:
    /// True when the position is the end.
    virtual bool at_end() const = 0;
    /// The element at the position; for smart pointers a new reference.
    virtual T current() const = 0;
    /// Moves forward; at the end it wraps around to the beginning.
    virtual void next() = 0;
    /// A new handler at the same position.
    virtual iterator_handler_t* clone() const = 0;
    /// Moves to the beginning; true when it could.
    virtual bool reset() { return false; }
    /// Deletes the handler.
    virtual void destroy() = 0;
    /// Bit set of iterator_capability_t.
    virtual unsigned int capabilities() const { return 0; }
    /// Moves back; at the beginning it wraps around to the end.
    virtual void prev() {}
    virtual ~iterator_handler_t() {}
};

/// Name of an element type as the assertion of current() prints it.
template <class T>
struct iterator_element_name_t {
    static const char* get() { return typeid(T).name(); }
};
template <>
struct iterator_element_name_t<const wchar_t*> {
    static const char* get() { return "const __wchar_t *"; }
};
template <>
struct iterator_element_name_t<unsigned int> {
    static const char* get() { return "unsigned int"; }
};

/// A value object that owns one handler; copying it clones the handler, so that every
/// iterator keeps a position of its own.
template <class T>
class generic_iterator_t {
public:
    typedef T value_type;

    generic_iterator_t() : m_handler(nullptr) {}
    /// Takes ownership of `handler`.
    explicit generic_iterator_t(iterator_handler_t<T>* handler) : m_handler(handler) {}
    generic_iterator_t(const generic_iterator_t& other)
        : m_handler(other.m_handler ? other.m_handler->clone() : nullptr)
    {
    }
    generic_iterator_t(generic_iterator_t&& other) noexcept : m_handler(other.m_handler)
    {
        other.m_handler = nullptr;
    }
    generic_iterator_t& operator=(generic_iterator_t other) noexcept
    {
        std::swap(m_handler, other.m_handler);
        return *this;
    }
    virtual ~generic_iterator_t()
    {
        if (m_handler)
            m_handler->destroy();
    }

    /// True when the handler has all bits of `flags`.
    virtual bool supports(unsigned int flags) const
    {
        return m_handler && (m_handler->capabilities() & flags) == flags;
    }

    /// True at the end, and for an iterator without a handler.
    bool at_end() const { return !m_handler || m_handler->at_end(); }

    /// The element at the position. At the end this reports an assertion and yields a
    /// null (value-initialised) element.
    T current() const
    {
        if (at_end()) {
            report_assertion(assertion_report_t{"!at_end()", "iterator is at end state", __FILE__,
                                                __LINE__, function_name().c_str()});
            return T();
        }
        return m_handler->current();
    }

    void next()
    {
        if (m_handler)
            m_handler->next();
    }
    void prev()
    {
        if (m_handler)
            m_handler->prev();
    }
    bool reset() { return m_handler && m_handler->reset(); }

    generic_iterator_t& operator++()
    {
        next();
        return *this;
    }
    T operator*() const { return current(); }

private:
    static std::string function_name()
    {
        return std::string("basekit2::generic_iterator_t<") + iterator_element_name_t<T>::get() +
               ">::current";
    }

    iterator_handler_t<T>* m_handler;
};

/// The conversion that changes nothing (beyond the implicit one into T).
template <class T>
struct identity_t {
    template <class U>
    T operator()(const U& value) const
    {
        return value;
    }
};

/// Supplies clone() and destroy() to a concrete handler `Impl`.
template <class T, class Impl>
class iterator_impl_base_t : public iterator_handler_t<T> {
public:
    iterator_handler_t<T>* clone() const override { return new Impl(static_cast<const Impl&>(*this)); }
    void destroy() override { delete this; }
};

/// Base of handlers over a pair of vector iterators: resettable and bidirectional.
template <class T, class Impl>
class stl_iterator_impl_base_t : public iterator_impl_base_t<T, Impl> {
public:
    unsigned int capabilities() const override { return icResettable | icBidirectional; }
};

/// Walks a copied pair of iterators [begin, end) of a vector that must outlive it.
template <class T, class Iterator, class Conversion = identity_t<T>>
class stl_iterator_impl_t
    : public stl_iterator_impl_base_t<T, stl_iterator_impl_t<T, Iterator, Conversion>> {
public:
    stl_iterator_impl_t(Iterator begin, Iterator end) : m_current(begin), m_begin(begin), m_end(end) {}

    bool at_end() const override { return m_current == m_end; }
    T current() const override { return Conversion()(*m_current); }
    void next() override
    {
        if (m_current == m_end)
            m_current = m_begin;
        else
            ++m_current;
    }
    void prev() override
    {
        if (m_current == m_begin)
            m_current = m_end;
        else
            --m_current;
    }
    bool reset() override
    {
        m_current = m_begin;
        return true;
    }

private:
    Iterator m_current;
    Iterator m_begin;
    Iterator m_end;
};

/// Wraps another iterator and converts each element it yields.
template <class T, class Source, class Conversion = identity_t<T>>
class converting_iterator_impl_t
    : public iterator_impl_base_t<T, converting_iterator_impl_t<T, Source, Conversion>> {
public:
    explicit converting_iterator_impl_t(const generic_iterator_t<Source>& inner) : m_inner(inner) {}

    bool at_end() const override { return m_inner.at_end(); }
    T current() const override { return Conversion()(m_inner.current()); }
    void next() override { m_inner.next(); }
    bool reset() override { return m_inner.reset(); }
    void prev() override { m_inner.prev(); }
    unsigned int capabilities() const override
    {
        return (m_inner.supports(icResettable) ? icResettable : 0u) |
               (m_inner.supports(icBidirectional) ? icBidirectional : 0u);
    }

private:
    generic_iterator_t<Source> m_inner;
};

/// An iterator over the elements of `items` (which must outlive it), converted to T.
template <class T, class Vector>
generic_iterator_t<T> make_vector_iterator(const Vector& items)
{
    typedef typename Vector::const_iterator Iterator;
    return generic_iterator_t<T>(new stl_iterator_impl_t<T, Iterator>(items.begin(), items.end()));
}

namespace detail {

/// Owns its paths, shared between clones, so that the iterator stands on its own.
class path_list_handler_t : public stl_iterator_impl_base_t<const wchar_t*, path_list_handler_t> {
public:
    explicit path_list_handler_t(std::shared_ptr<const std::vector<std::wstring>> paths)
        : m_paths(std::move(paths)), m_index(0)
    {
    }

    bool at_end() const override { return m_index == m_paths->size(); }
    const wchar_t* current() const override { return (*m_paths)[m_index].c_str(); }
    void next() override { m_index = at_end() ? 0 : m_index + 1; }
    void prev() override { m_index = m_index == 0 ? m_paths->size() : m_index - 1; }
    bool reset() override
    {
        m_index = 0;
        return true;
    }

private:
    std::shared_ptr<const std::vector<std::wstring>> m_paths;
    std::size_t m_index;
};

} // namespace detail

/// Builds the directory iterator that the factories take:
///
///     auto dirs = basekit2::make_path_iterator({L"/data/run1", L"/data/run2"});
///     auto resolver = velmark_3_11::ISymbolResolver::create(dirs, locator);
///
/// The iterator keeps its own copy of the paths.
inline generic_iterator_t<const wchar_t*> make_path_iterator(std::vector<std::wstring> paths)
{
    return generic_iterator_t<const wchar_t*>(new detail::path_list_handler_t(
        std::make_shared<const std::vector<std::wstring>>(std::move(paths))));
}

} // namespace basekit2
