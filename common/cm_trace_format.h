// Compile-time check of trace formats against the arguments of the call.
//
// A trace format is a printf format, optionally behind the level prefix
// "%lX " (recognised as trace recognises it: '%', 'l', any character, a
// blank). The check accepts no more than g++'s -Wformat would:
// - %% and the conversions d i u o x X c s p f F e E g G a A;
// - the flags each conversion allows (- for all; + and blank for d i and the
//   floating ones; # for o x X and the floating ones; 0 for all but c s p),
//   a width, a precision (not for c p), each as digits or *, which takes an
//   int;
// - the lengths hh h l ll z j t for the integer conversions, l and L for the
//   floating ones.
// Each argument must be what its conversion reads after the promotions:
// int (hh h and none: bool, the char types, short, int, unsigned and
// unscoped enums), long (l), long long (ll), the types of size_t, intmax_t
// and ptrdiff_t (z j t), signed or unsigned alike as g++ allows; double or
// float (f F e E g G a A), long double (L); a pointer to char, signed char
// or unsigned char (s); any object pointer or nullptr (p).
// Rejected: %n, %lc and %ls, positional arguments ("%1$d"), the ' and I
// flags, any other conversion, a '%' at the end, too few or too many
// arguments.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace trace_format {

/// What printf reads for an argument; signed and unsigned are one kind.
enum Arg : unsigned char { kInt, kLong, kLongLong, kDouble, kLongDouble, kCharPointer, kPointer, kOther };

template <class I>
constexpr Arg IntegerArg() {
  using S = std::make_signed_t<I>;
  if constexpr (std::is_same_v<S, int>) return kInt;
  if constexpr (std::is_same_v<S, long>) return kLong;
  if constexpr (std::is_same_v<S, long long>) return kLongLong;
  return kOther;
}

/// The kind of an argument of type T after the default argument promotions.
template <class T>
constexpr Arg ArgOf() {
  if constexpr (std::is_integral_v<T> || (std::is_enum_v<T> && std::is_convertible_v<T, long long>)) {
    return IntegerArg<decltype(+std::declval<T>())>();  // unary + promotes as a variadic call does
  } else if constexpr (std::is_same_v<T, float> || std::is_same_v<T, double>) {
    return kDouble;
  } else if constexpr (std::is_same_v<T, long double>) {
    return kLongDouble;
  } else if constexpr (std::is_null_pointer_v<T>) {
    return kPointer;
  } else if constexpr (std::is_pointer_v<T>) {
    using C = std::remove_cv_t<std::remove_pointer_t<T>>;
    if constexpr (std::is_same_v<C, char> || std::is_same_v<C, signed char> || std::is_same_v<C, unsigned char>)
      return kCharPointer;
    return std::is_function_v<C> ? kOther : kPointer;
  }
  return kOther;
}

constexpr bool IsOneOf(char c, const char* set) {
  for (; *set != '\0'; ++set)
    if (*set == c) return true;
  return false;
}

constexpr bool IsDigit(char c) { return c >= '0' && c <= '9'; }

/// The kind an integer conversion reads with the length ('H' = hh, 'q' = ll).
constexpr Arg IntegerConversion(char length) {
  switch (length) {
    case '\0':
    case 'H':
    case 'h':
      return kInt;
    case 'l':
      return kLong;
    case 'q':
      return kLongLong;
    case 'z':
      return IntegerArg<std::size_t>();
    case 'j':
      return IntegerArg<std::intmax_t>();
    case 't':
      return IntegerArg<std::ptrdiff_t>();
    default:
      return kOther;
  }
}

/// True if the format (with or without level prefix) reads exactly `count`
/// arguments of the given kinds.
constexpr bool Matches(const char* f, const Arg* args, std::size_t count) {
  if (f[0] == '%' && f[1] == 'l' && f[2] != '\0' && f[3] == ' ') f += 4;
  std::size_t used = 0;
  // Consumes the next argument if it is of the kind the conversion reads.
  auto next_is = [&](Arg want) {
    if (used == count) return false;
    const Arg a = args[used++];
    return a == want || (want == kPointer && a == kCharPointer);
  };
  while (*f != '\0') {
    if (*f++ != '%') continue;
    if (*f == '%') {
      ++f;
      continue;
    }
    const char* const flags = f;
    while (IsOneOf(*f, "-+ #0")) ++f;
    const char* const flags_end = f;
    if (*f == '*') {
      if (!next_is(kInt)) return false;
      ++f;
    }
    while (IsDigit(*f)) ++f;
    const bool precision = *f == '.';
    if (precision) {
      if (*++f == '*') {
        if (!next_is(kInt)) return false;
        ++f;
      }
      while (IsDigit(*f)) ++f;
    }
    char length = '\0';
    if (*f == 'h' || *f == 'l') {
      length = *f++;
      if (*f == length) {
        length = length == 'h' ? 'H' : 'q';
        ++f;
      }
    } else if (IsOneOf(*f, "zjtL")) {
      length = *f++;
    }
    const char c = *f;
    if (c == '\0') return false;
    ++f;
    Arg want = kOther;
    const char* allowed = "";  // flags the conversion allows; 'p' = a precision
    if (c == 'd' || c == 'i') {
      want = IntegerConversion(length);
      allowed = "-+ 0p";
    } else if (IsOneOf(c, "ouxX")) {
      want = IntegerConversion(length);
      allowed = c == 'u' ? "-0p" : "-#0p";
    } else if (IsOneOf(c, "fFeEgGaA")) {
      want = length == '\0' || length == 'l' ? kDouble : length == 'L' ? kLongDouble : kOther;
      allowed = "-+ #0p";
    } else if (IsOneOf(c, "csp")) {
      want = length != '\0' ? kOther : c == 'c' ? kInt : c == 's' ? kCharPointer : kPointer;
      allowed = c == 's' ? "-p" : "-";
    }
    if (want == kOther) return false;
    for (const char* g = flags; g != flags_end; ++g)
      if (!IsOneOf(*g, allowed)) return false;
    if (precision && !IsOneOf('p', allowed)) return false;
    if (!next_is(want)) return false;
  }
  return used == count;
}

}  // namespace trace_format

/// True if the trace format fits arguments of the given types.
template <class... Args>
constexpr bool TraceFormatMatches(const char* format) {
  // One more element: an array must not be empty.
  constexpr trace_format::Arg args[] = {trace_format::ArgOf<std::decay_t<Args>>()..., trace_format::kOther};
  return trace_format::Matches(format, args, sizeof...(Args));
}

/// Not constexpr: called only for a format that does not match, so the
/// compiler reports the offending trace call.
inline void trace_format_does_not_match_its_arguments() {}

/// A trace format checked at compile time against the argument types.
template <class... Args>
struct TraceFormat {
  const char* text;
  consteval TraceFormat(const char* format) : text(format) {  // NOLINT: implicit on purpose
    if (!TraceFormatMatches<Args...>(format)) trace_format_does_not_match_its_arguments();
  }
};
