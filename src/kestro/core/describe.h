#pragma once

#include <fmt/format.h>
#include <fmt/ostream.h>

#include <concepts>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>

namespace kestro {

/// What a null C string reads as wherever Kestro is handed one as text.
inline constexpr std::string_view kNullText = "(null)";

/// A text a caller hands to Kestro: anything a std::string_view can be made from, and a null
/// C string (or nullptr), which reads "(null)" instead of being read as a string. Log calls
/// take their level, subsystem, category and file as one of these. Like a string_view it must
/// not outlive what it refers to.
class TextRef : public std::string_view {
  public:
    constexpr TextRef() = default;
    constexpr TextRef(std::string_view text) : std::string_view(text) {}
    TextRef(const std::string& text) : std::string_view(text) {}
    constexpr TextRef(const char* text)
        : std::string_view(text != nullptr ? std::string_view(text) : kNullText) {}
    constexpr TextRef(std::nullptr_t) : std::string_view(kNullText) {}
};

namespace internal {
template <typename T>
concept Streamable = requires(std::ostream& os, const T& v) {
    os << v;
};

// A pointer to narrow characters, which both fmt and operator<< read as a C string.
template <typename T>
concept CharPointer = std::is_pointer_v<T> &&
    (std::is_same_v<std::remove_cv_t<std::remove_pointer_t<T>>, char> ||
     std::is_same_v<std::remove_cv_t<std::remove_pointer_t<T>>, signed char> ||
     std::is_same_v<std::remove_cv_t<std::remove_pointer_t<T>>, unsigned char>);

void appendStreamed(fmt::memory_buffer& out, const void* value,
                    void (*stream)(std::ostream&, const void*));
void appendUnprintable(fmt::memory_buffer& out, const std::type_info& type);
}  // namespace internal

/// A reference to a value of any type together with the way to describe it. Log calls take
/// their first item as one of these so that they can capture the caller's location; it must
/// not outlive the value it refers to (a log call's full expression).
class ItemRef {
  public:
    template <typename T>
    ItemRef(const T& value) : value_(&value), describe_(&describeErased<T>) {}
    void describeTo(fmt::memory_buffer& out) const { describe_(out, value_); }

  private:
    template <typename T>
    static void describeErased(fmt::memory_buffer& out, const void* value);
    const void* value_;
    void (*describe_)(fmt::memory_buffer&, const void*);
};

/// Appends the default textual description of a value: its fmt formatting where fmt knows the
/// type, else its operator<<, else "<" + the type's name + ">". Booleans read "true"/"false";
/// a null C string (or nullptr) reads "(null)".
/// May throw whatever the value's formatter throws; callers on the logging path catch.
template <typename T>
void describeTo(fmt::memory_buffer& out, const T& value) {
    if constexpr (std::is_base_of_v<ItemRef, T>) {
        value.describeTo(out);
    } else if constexpr (std::is_null_pointer_v<T>) {
        out.append(kNullText.data(), kNullText.data() + kNullText.size());
    } else if constexpr (internal::CharPointer<T>) {
        const std::string_view text = TextRef(reinterpret_cast<const char*>(value));
        out.append(text.data(), text.data() + text.size());
    } else if constexpr (std::is_same_v<T, bool>) {
        fmt::format_to(std::back_inserter(out), "{}", value ? "true" : "false");
    } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
        std::string_view text = value;
        out.append(text.data(), text.data() + text.size());
    } else if constexpr (fmt::is_formattable<T>::value) {
        fmt::format_to(std::back_inserter(out), "{}", value);
    } else if constexpr (internal::Streamable<T>) {
        internal::appendStreamed(
            out, &value, [](std::ostream& os, const void* p) { os << *static_cast<const T*>(p); });
    } else {
        internal::appendUnprintable(out, typeid(T));
    }
}

template <typename T>
void ItemRef::describeErased(fmt::memory_buffer& out, const void* value) {
    kestro::describeTo(out, *static_cast<const T*>(value));
}

/// Each item's description, joined with single spaces. No items give the empty text.
template <typename... Items>
void describeJoined(fmt::memory_buffer& out, const Items&... items) {
    bool first = true;
    auto one = [&](const auto& item) {
        if (!first) out.push_back(' ');
        first = false;
        describeTo(out, item);
    };
    (one(items), ...);
    (void)one;
}

template <typename... Items>
std::string describe(const Items&... items) {
    fmt::memory_buffer out;
    describeJoined(out, items...);
    return fmt::to_string(out);
}

}  // namespace kestro
