// Value types, declared once:
//
//   namespace Mpls {
//   ZINC_VALUE(LfibViaKey, "Mpls::LfibViaKey",
//              (LFib::Source, source), (LfibViaType, viaType), (uint32_t, index));
//   }
//
// Each attribute is a (type, name) pair, in declared order; a type containing a comma needs an
// alias. A set of values is a Zinc::ValueSet<E> attribute (ValueSet.h). An inline array attribute
// is (element type, name, index type): the array holds at most Index::maxValue + 1 elements (see
// InlineArray.h).
//
// Generated for every value type T:
//   T()                          every attribute zero/empty/its enumeration's first value
//   T(a, b, ...)                 from all attributes in order (explicit for a single attribute)
//   a(), aIs(v)                  per attribute
//   for an inline array x indexed by I: x(I), xIs(I, v), xDel(I), xDelAll(), xs() (the count)
//   ==, <                        all attributes; lexicographic in declared order
//   hash()                       Zinc::Hash, one mix per attribute in declared order
//   valueToStrep(v), operator<<  "Value('Ns::T', ** {'a': <a>, 'b': <b>})"
//   ledgerString()               "[<first attribute>] <second> <third> ..."
//   serializeLen(), serialize(out), deserialize(in, len), T::deserializeLen(in, len)
// and, as free functions, Zinc::strepToValue<T>(text) and Zinc::Serial<T> (below).
//
// A type that needs more declares its attributes and writes the class around the generated body:
//
//   ZINC_VALUE_ATTRS(RouteInfo, "Mpls::RouteInfo", (RouteKey, key), (ReturnCode, status));
//   class RouteInfo : public RouteInfoZincAttrs {
//     ZINC_VALUE_BODY(RouteInfo);
//
//    public:
//     bool unprogrammed() const { return status() != 0; }
//   };
//
// Setters and ledgerString() live in a base class, so the type may hide them with its own
// (checked) version; the attributes are protected members named with a trailing underscore.
#pragma once

#include <cstdint>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "zinc/Enum.h"
#include "zinc/Exception.h"
#include "zinc/Hash.h"
#include "zinc/InlineArray.h"
#include "zinc/Preprocessor.h"
#include "zinc/Strep.h"
#include "zinc/ValueSet.h"
#include "zinc/ValueTraits.h"
#include "zinc/Word.h"

namespace Zinc {

// One attribute of a value type: its name and where it lives.
template <class C, class M>
struct Field {
  using Type = M;
  std::string_view name;
  M C::*member;
};

template <class C, class M>
constexpr Field<C, M> field(std::string_view name, M C::*member) {
  return {name, member};
}

template <class T>
concept ZincValue = requires {
  T::zincFields();
};

template <class T>
using FieldsOf = decltype(T::zincFields());

// Calls fn(field) for each attribute in declared order.
template <class T, class Fn>
constexpr void forEachField(Fn&& fn) {
  std::apply([&](const auto&... f) { (fn(f), ...); }, T::zincFields());
}

// Calls fn(field) in declared order until it returns true; returns whether one did.
template <class T, class Fn>
constexpr bool anyField(Fn&& fn) {
  return std::apply([&](const auto&... f) { return (fn(f) || ...); }, T::zincFields());
}

template <class T, template <class> class Pred>
constexpr bool allFieldTypes() {
  return []<class... F>(std::type_identity<std::tuple<F...>>) {
    return (Pred<typename F::Type>::value && ...);
  }(std::type_identity<FieldsOf<T>>{});
}

template <class X>
struct IsSerializable : std::bool_constant<ValueTraits<X>::serializable> {};
template <class X>
struct IsFixedSize : std::bool_constant<ValueTraits<X>::fixedSize> {};
template <class X>
struct HasNoCollection : std::bool_constant<!ValueTraits<X>::hasCollection> {};

template <class T>
constexpr size_t fieldMaxSizeSum() {
  return []<class... F>(std::type_identity<std::tuple<F...>>) {
    return (ValueTraits<typename F::Type>::maxSize + ... + size_t(0));
  }(std::type_identity<FieldsOf<T>>{});
}

template <ZincValue T>
bool valueEqual(const T& a, const T& b) {
  return !anyField<T>([&](const auto& f) {
    using Tr = ValueTraits<typename std::decay_t<decltype(f)>::Type>;
    return !Tr::equal(a.*f.member, b.*f.member);
  });
}

// Lexicographic over the attributes in declared order: -1, 0 or 1.
template <ZincValue T>
int valueCompare(const T& a, const T& b) {
  int result = 0;
  anyField<T>([&](const auto& f) {
    result = compareOf(a.*f.member, b.*f.member);
    return result != 0;
  });
  return result;
}

template <ZincValue T>
bool valueLess(const T& a, const T& b) {
  return valueCompare(a, b) < 0;
}

template <ZincValue T>
uint32_t valueHash(const T& v) {
  Hash h;
  forEachField<T>([&](const auto& f) {
    ValueTraits<typename std::decay_t<decltype(f)>::Type>::mix(h, v.*f.member);
  });
  return h.result();
}

template <ZincValue T>
std::ostream& valuePrint(std::ostream& os, const T& v) {
  os << "Value('" << T::zincTypeName() << "', ** {";
  bool first = true;
  forEachField<T>([&](const auto& f) {
    os << (first ? "'" : ", '") << f.name << "': ";
    first = false;
    ValueTraits<typename std::decay_t<decltype(f)>::Type>::print(os, v.*f.member);
  });
  return os << "})";
}

template <ZincValue T>
std::string valueStrep(const T& v) {
  std::ostringstream os;
  valuePrint(os, v);
  return os.str();
}

// Prints one attribute for ledgerString(): a type may provide zincLedgerPrint(os, x), found by
// argument-dependent lookup; otherwise its text form.
template <class X>
void ledgerPrint(std::ostream& os, const X& x) {
  if constexpr (requires { zincLedgerPrint(os, x); }) {
    zincLedgerPrint(os, x);
  } else {
    ValueTraits<X>::print(os, x);
  }
}

template <ZincValue T>
std::string valueLedgerString(const T& v) {
  std::ostringstream os;
  bool first = true;
  forEachField<T>([&](const auto& f) {
    os << (first ? "[" : " ");
    ledgerPrint(os, v.*f.member);
    if (first) os << "]";
    first = false;
  });
  return os.str();
}

template <ZincValue T>
void valueParse(StrepParser& p, T& v) {
  p.expect("Value(");
  p.expectName(T::zincTypeName(), "type");
  p.expect(",");
  p.expect("**");
  p.expect("{");
  bool first = true;
  forEachField<T>([&](const auto& f) {
    if (!first) p.expect(",");
    first = false;
    p.expectName(f.name, "attribute");
    p.expect(":");
    ValueTraits<typename std::decay_t<decltype(f)>::Type>::parse(p, v.*f.member);
  });
  p.expect("}");
  p.expect(")");
}

template <ZincValue T>
struct ValueTraits<T> {
  static constexpr bool hasCollection = !allFieldTypes<T, HasNoCollection>();
  static constexpr bool serializable = allFieldTypes<T, IsSerializable>();
  static constexpr bool fixedSize = serializable && allFieldTypes<T, IsFixedSize>();
  static constexpr size_t maxSize = serializable ? fieldMaxSizeSum<T>() : 0;

  static bool less(const T& a, const T& b) { return valueLess(a, b); }
  static int compare(const T& a, const T& b) { return valueCompare(a, b); }
  static bool equal(const T& a, const T& b) { return valueEqual(a, b); }
  static void mix(Hash& h, const T& v) { h.mix(v.hash()); }
  static void print(std::ostream& os, const T& v) { valuePrint(os, v); }
  static void parse(StrepParser& p, T& v) { valueParse(p, v); }

  static size_t length(const T& v) {
    if constexpr (fixedSize) {
      return maxSize;
    } else {
      size_t len = 0;
      forEachField<T>([&](const auto& f) {
        len += ValueTraits<typename std::decay_t<decltype(f)>::Type>::length(v.*f.member);
      });
      return len;
    }
  }
  static uint8_t* store(const T& v, uint8_t* out) {
    forEachField<T>([&](const auto& f) {
      out = ValueTraits<typename std::decay_t<decltype(f)>::Type>::store(v.*f.member, out);
    });
    return out;
  }
  static const uint8_t* load(const uint8_t* in, const uint8_t* end, T& v) {
    if constexpr (fixedSize) needBytes(in, end, maxSize);
    forEachField<T>([&](const auto& f) {
      in = ValueTraits<typename std::decay_t<decltype(f)>::Type>::load(in, end, v.*f.member);
    });
    return in;
  }
  static size_t lengthAt(const uint8_t* in, const uint8_t* end) {
    if constexpr (fixedSize) {
      needBytes(in, end, maxSize);
      return maxSize;
    } else {
      const uint8_t* p = in;
      forEachField<T>([&](const auto& f) {
        p += ValueTraits<typename std::decay_t<decltype(f)>::Type>::lengthAt(p, end);
      });
      return static_cast<size_t>(p - in);
    }
  }
};

[[noreturn]] void noStringConstructor(std::string_view shortName);

// Reads the text form of any value, enumeration, word or leaf. Malformed text raises
// Zinc::Exception; a value out of its range Zinc::RangeException; a value type holding an inline
// array cannot be built from text (InternalException "No String constructor for T - has
// collection").
template <class T>
T strepToValue(std::string_view text) {
  if constexpr (ValueTraits<T>::hasCollection) {
    noStringConstructor(T::zincShortName());
  } else {
    StrepParser p(text);
    T v = initialValue<T>();
    ValueTraits<T>::parse(p, v);
    p.expectEnd();
    return v;
  }
}

// The same reader, under the name that enumeration code knows it by.
template <class T>
T sequenceToValue(std::string_view text) {
  return strepToValue<T>(text);
}

// The serialised form of a value (packed little-endian attributes in declared order):
//   Serial<T>::fixed      true when every value of T has the same length
//   Serial<T>::size       that length (for fixed types), else the largest possible length
//   Serial<T>::length(v)  the length of v
//   Serial<T>::store(v, out) -> bytes written
//   Serial<T>::load(in, v)           fixed types: reads size bytes
//   Serial<T>::load(in, avail, v) -> bytes read; Exception when avail is too short, RangeException
//                                    when the bytes hold an impossible value
//   Serial<T>::lengthAt(in, avail)   the length of the serialised value at `in`
//   Serial<T>::Key, loadKey(in, key) the first attribute (a record's key), read from the prefix
//                                    (for a type that is not a record: the whole value)
template <class T>
struct FirstField {
  using type = T;
};
template <ZincValue T>
struct FirstField<T> {
  using type = typename std::tuple_element_t<0, FieldsOf<T>>::Type;
};

template <class T>
struct Serial {
  using Tr = ValueTraits<T>;
  static_assert(Tr::serializable, "type holds an attribute without a serialised form");
  static constexpr bool fixed = Tr::fixedSize;
  static constexpr size_t size = Tr::maxSize;

  static size_t length(const T& v) { return Tr::length(v); }
  static size_t store(const T& v, void* out) {
    auto* o = static_cast<uint8_t*>(out);
    return static_cast<size_t>(Tr::store(v, o) - o);
  }
  static void load(const void* in, T& v) requires fixed {
    auto* i = static_cast<const uint8_t*>(in);
    Tr::load(i, i + size, v);
  }
  static size_t load(const void* in, size_t avail, T& v) {
    auto* i = static_cast<const uint8_t*>(in);
    T fresh = initialValue<T>();
    size_t used = static_cast<size_t>(Tr::load(i, i + avail, fresh) - i);
    v = fresh;
    return used;
  }
  static size_t lengthAt(const void* in, size_t avail) {
    auto* i = static_cast<const uint8_t*>(in);
    return Tr::lengthAt(i, i + avail);
  }

  using Key = typename FirstField<T>::type;
  static void loadKey(const void* in, Key& key) {
    auto* i = static_cast<const uint8_t*>(in);
    ValueTraits<Key>::load(i, i + ValueTraits<Key>::maxSize, key);
  }
};

}  // namespace Zinc

// ---- the declaration macros ----

#define ZINC_VF_DISPATCH(pass, f) ZINC_PP_CAT(pass, ZINC_PP_NARGS f) f

// Members, accessors and setters.
#define ZINC_VF_ATTR_2(Type, name)              \
 public:                                        \
  const Type& name() const { return name##_; }  \
  void name##Is(const Type& v) { name##_ = v; } \
                                                \
 protected:                                     \
  Type name##_ = ::Zinc::initialValue<Type>();
#define ZINC_VF_ATTR_3(Elem, name, Index)                         \
 public:                                                          \
  using name##Array = ::Zinc::InlineArray<Elem, Index>;           \
  const Elem& name(Index i) const { return name##_.elem(i); }     \
  void name##Is(Index i, const Elem& v) { name##_.elemIs(i, v); } \
  void name##Del(Index i) { name##_.elemDel(i); }                 \
  void name##DelAll() { name##_.elemDelAll(); }                   \
  uint32_t name##s() const { return name##_.count(); }            \
  const name##Array& name##Elements() const { return name##_; }   \
                                                                  \
 protected:                                                       \
  name##Array name##_;
#define ZINC_VF_ATTR(f) ZINC_VF_DISPATCH(ZINC_VF_ATTR_, f)

// Constructor parameters and initialisers.
#define ZINC_VF_PARAM_2(Type, name) const Type& name
#define ZINC_VF_PARAM_3(Elem, name, Index) const ::Zinc::InlineArray<Elem, Index>& name
#define ZINC_VF_PARAM(f) ZINC_VF_DISPATCH(ZINC_VF_PARAM_, f)
#define ZINC_VF_INIT_2(Type, name) name##_(name)
#define ZINC_VF_INIT_3(Elem, name, Index) name##_(name)
#define ZINC_VF_INIT(f) ZINC_VF_DISPATCH(ZINC_VF_INIT_, f)

// Field descriptors.
#define ZINC_VF_FIELD_2(Type, name) ::Zinc::field(#name, &ZincAttrs::name##_)
#define ZINC_VF_FIELD_3(Elem, name, Index) ::Zinc::field(#name, &ZincAttrs::name##_)
#define ZINC_VF_FIELD(f) ZINC_VF_DISPATCH(ZINC_VF_FIELD_, f)

// clang-format off
#define ZINC_VALUE_ATTRS(T, qualifiedName, ...)                                   \
  class T;                                                                        \
  class T##ZincAttrs {                                                            \
   protected:                                                                     \
    using ZincAttrs = T##ZincAttrs;                                               \
                                                                                  \
   public:                                                                        \
    T##ZincAttrs() = default;                                                     \
    explicit(ZINC_PP_NARGS(__VA_ARGS__) == 1)                                     \
    T##ZincAttrs(ZINC_PP_FOR_EACH_COMMA(ZINC_VF_PARAM, __VA_ARGS__))              \
        : ZINC_PP_FOR_EACH_COMMA(ZINC_VF_INIT, __VA_ARGS__) {}                    \
    static constexpr std::string_view zincTypeName() { return qualifiedName; }    \
    static constexpr std::string_view zincShortName() { return #T; }              \
    static constexpr auto zincFields() {                                          \
      return std::make_tuple(ZINC_PP_FOR_EACH_COMMA(ZINC_VF_FIELD, __VA_ARGS__)); \
    }                                                                             \
    template <class Z = T>                                                        \
    std::string ledgerString() const {                                            \
      return ::Zinc::valueLedgerString(static_cast<const Z&>(*this));             \
    }                                                                             \
    template <class Z = T>                                                        \
    size_t serializeLen() const {                                                 \
      return ::Zinc::Serial<Z>::length(static_cast<const Z&>(*this));             \
    }                                                                             \
    template <class Z = T>                                                        \
    size_t serialize(void* out) const {                                           \
      return ::Zinc::Serial<Z>::store(static_cast<const Z&>(*this), out);         \
    }                                                                             \
    template <class Z = T>                                                        \
    size_t deserialize(const void* in, size_t len) {                              \
      return ::Zinc::Serial<Z>::load(in, len, static_cast<Z&>(*this));            \
    }                                                                             \
    template <class Z = T>                                                        \
    static size_t deserializeLen(const void* in, size_t len) {                    \
      return ::Zinc::Serial<Z>::lengthAt(in, len);                                \
    }                                                                             \
    ZINC_PP_FOR_EACH(ZINC_VF_ATTR, __VA_ARGS__)                                   \
  }

// clang-format on

#define ZINC_VALUE_BODY(T)                                                            \
 public:                                                                              \
  using T##ZincAttrs::T##ZincAttrs;                                                   \
  T() = default;                                                                      \
  uint32_t hash() const { return ::Zinc::valueHash(*this); }                          \
  friend bool operator==(const T& a, const T& b) { return ::Zinc::valueEqual(a, b); } \
  friend bool operator<(const T& a, const T& b) { return ::Zinc::valueLess(a, b); }   \
  friend std::ostream& operator<<(std::ostream& os, const T& v) {                     \
    return ::Zinc::valuePrint(os, v);                                                 \
  }                                                                                   \
  friend std::string valueToStrep(const T& v) { return ::Zinc::valueStrep(v); }       \
  static_assert(true)

#define ZINC_VALUE(T, qualifiedName, ...)          \
  ZINC_VALUE_ATTRS(T, qualifiedName, __VA_ARGS__); \
  class T : public T##ZincAttrs {                  \
    ZINC_VALUE_BODY(T);                            \
  }
