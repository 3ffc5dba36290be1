#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "zinc/Value.h"
#include "zinc/tests/ValueChecks.h"

namespace Shop {

ZINC_ENUM(Color, "Shop::Color", (colorNone, 0), (colorRed, 1), (colorBlue, 5), (colorDark, -2));
ZINC_BOUNDED(SlotIndex, uint8_t, 0, 7);
class Label {
  ZINC_BOUNDED_BODY(Label, uint32_t, 0, 0x800000, "luWithdraw");

 public:
  static constexpr uint32_t null = 0x100000;
};
ZINC_BITSET(Flags, "Shop::Flags", uint32_t, (fragile, 0), (urgent, 4));
using Labels = Zinc::FixedList<Label, 3>;

ZINC_VALUE(ItemKey, "Shop::ItemKey", (Color, color), (uint32_t, index));
ZINC_VALUE(Item, "Shop::Item", (ItemKey, key), (bool, inStock), (Flags, flags), (int16_t, delta),
           (Labels, labels), (uint64_t, weight), (double, price));
ZINC_VALUE(Note, "Shop::Note", (ItemKey, key), (Zinc::String, text));
ZINC_VALUE(Shelf, "Shop::Shelf", (ItemKey, key), (ItemKey, item, SlotIndex));
ZINC_VALUE(Tag, "Shop::Tag", (uint32_t, id));
using ItemKeySet = Zinc::ValueSet<ItemKey>;
ZINC_VALUE(Basket, "Shop::Basket", (uint32_t, id), (ItemKeySet, items));
static_assert(!std::is_convertible_v<uint32_t, Tag>, "one attribute: no implicit conversion");

ZINC_VALUE_ATTRS(Order, "Shop::Order", (ItemKey, key), (uint32_t, quantity));
class Order : public OrderZincAttrs {
  ZINC_VALUE_BODY(Order);

 public:
  // A checked setter hides the generated one.
  void quantityIs(uint32_t q) {
    ZINC_ASSERT(q <= 1000, "too many");
    quantity_ = q;
  }
  bool large() const { return quantity() > 100; }
};

}  // namespace Shop

namespace Zinc::Testing {
namespace {

using namespace Shop;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

TEST(ValueType, EveryDeclaredTypePassesTheGenericChecks) {
  checkValueType(arbitrarySamples<ItemKey>(60));
  checkValueType(arbitrarySamples<Item>(80));
  checkValueType(arbitrarySamples<Note>(40));
  checkValueType(arbitrarySamples<Shelf>(40));
  checkValueType(arbitrarySamples<Order>(40));
  checkValueType(arbitrarySamples<Tag>(20));
  checkValueType(arbitrarySamples<Basket>(40));
}

TEST(ValueType, DefaultIsZeroAndConstructionFollowsDeclaredOrder) {
  Item item;
  EXPECT_EQ(item.key().color(), colorNone_);
  EXPECT_EQ(item.key().index(), 0u);
  EXPECT_FALSE(item.inStock());
  EXPECT_EQ(item.labels().size(), 0u);
  Item full(ItemKey(colorRed_, 3), true, Flags(0x11u), -4, Labels{16, 17}, 9, 1.5);
  EXPECT_EQ(full.key(), ItemKey(colorRed_, 3));
  EXPECT_TRUE(full.flags().urgent());
  EXPECT_EQ(full.delta(), -4);
  EXPECT_EQ(full.labels()[1].value(), 17u);
  full.weightIs(12);
  EXPECT_EQ(full.weight(), 12u);
}

TEST(ValueType, TextFormIsExact) {
  Item item(ItemKey(colorBlue_, 7), true, Flags(1u), -1, Labels{16, Label::null}, 0, 0.25);
  EXPECT_EQ(valueToStrep(item),
            "Value('Shop::Item', ** {'key': Value('Shop::ItemKey', ** {'color': colorBlue, "
            "'index': 7}), 'inStock': True, 'flags': Value('Shop::Flags', ** {'fragile': True, "
            "'urgent': False}), 'delta': -1, 'labels': [16, 1048576], 'weight': 0, "
            "'price': 0.25})");
  EXPECT_EQ(valueToStrep(Note(ItemKey(), "it's")),
            "Value('Shop::Note', ** {'key': Value('Shop::ItemKey', ** {'color': colorNone, "
            "'index': 0}), 'text': 'it\\'s'})");
  EXPECT_EQ(ItemKey(colorRed_, 2).ledgerString(), "[colorRed] 2");
}

TEST(ValueType, OrderIsLexicographicEnumsSignedIndicesUnsigned) {
  EXPECT_TRUE(ItemKey(colorDark_, 9) < ItemKey(colorNone_, 0));  // -2 < 0
  EXPECT_TRUE(ItemKey(colorRed_, 1) < ItemKey(colorRed_, 0x80000000u));
  EXPECT_TRUE(ItemKey(colorRed_, 0xffffffffu) < ItemKey(colorBlue_, 0));
  EXPECT_FALSE(ItemKey(colorRed_, 1) < ItemKey(colorRed_, 1));
}

// Fixed across processes and builds: tables in shared memory depend on it.
TEST(ValueType, HashIsPinned) {
  EXPECT_EQ(ItemKey(colorRed_, 1).hash(), 0x38d98a9au);
  EXPECT_EQ(ItemKey(colorBlue_, 7).hash(), 0xc252a358u);
  EXPECT_EQ(Note(ItemKey(colorBlue_, 7), "x").hash(), 0xf0fec27bu);
  EXPECT_NE(ItemKey(colorRed_, 1).hash(), ItemKey(colorNone_, 1).hash());
}

TEST(ValueType, CheckedSetterHidesGeneratedOne) {
  Order order;
  order.quantityIs(200);
  EXPECT_TRUE(order.large());
  EXPECT_THROW(order.quantityIs(1001), InternalException);
  EXPECT_EQ(order.quantity(), 200u);
}

TEST(Bounded, RangeIsCheckedOnConstructionArithmeticParseAndLoad) {
  EXPECT_EQ(SlotIndex(7).value(), 7);
  EXPECT_THAT([] { SlotIndex(8); },
              ThrowsMessage<RangeException>(
                  "SlotIndex::value < SlotIndex::min or > SlotIndex::max not allowed"));
  EXPECT_THROW(SlotIndex(-1), RangeException);
  EXPECT_THROW(SlotIndex(uint64_t(256)), RangeException);  // would wrap to 0 in 8 bits
  SlotIndex i(3);
  EXPECT_EQ((i + 4).value(), 7);
  i += 2;
  EXPECT_EQ(i.value(), 5);
  EXPECT_THROW(i += 3, RangeException);
  EXPECT_EQ(i.value(), 5);
  EXPECT_EQ(strepToValue<SlotIndex>("6").value(), 6);
  EXPECT_THROW(strepToValue<SlotIndex>("8"), RangeException);
  uint8_t byte = 9;
  SlotIndex loaded;
  EXPECT_THROW(Serial<Shelf>::lengthAt(&byte, 1), Exception);
  EXPECT_THROW(ValueTraits<SlotIndex>::load(&byte, &byte + 1, loaded), RangeException);
  EXPECT_THAT([] { Label(0x800001); },
              ThrowsMessage<RangeException>(
                  "Label::value < Label::min or > Label::luWithdraw not allowed"));
  EXPECT_EQ(Label(0x800000).value(), 0x800000u);
}

TEST(BitSet, UndeclaredBitsAreRefusedWithTheDeclaredMask) {
  Flags f;
  f.urgentIs(true);
  EXPECT_EQ(f.value(), 0x10u);
  f.fragileIs(true);
  f.urgentIs(false);
  EXPECT_EQ(f.value(), 0x1u);
  EXPECT_THAT([] { Flags(0x2u); },
              ThrowsMessage<RangeException>("Flags::value > 0x11 not allowed"));
  EXPECT_EQ(strepToValue<Flags>("Value('Shop::Flags', ** {'fragile': False, 'urgent': True})"),
            Flags(0x10u));
}

TEST(Enumeration, NamesNumbersAndInstances) {
  EXPECT_EQ(stringValue(colorBlue_), "colorBlue");
  EXPECT_EQ(valueToStrep(colorDark_), "colorDark");
  std::ostringstream os;
  os << colorRed_ << ' ' << static_cast<Color>(12);
  EXPECT_EQ(os.str(), "colorRed 12");
  EXPECT_EQ(ColorInstance(5u), colorBlue_);
  EXPECT_EQ(ColorInstance(9u), static_cast<Color>(9));
  EXPECT_EQ(ColorInstance(String("colorDark")), colorDark_);
  EXPECT_THROW(ColorInstance(String("colorGreen")), RangeException);
  EXPECT_EQ(strepToValue<Color>("colorBlue"), colorBlue_);
  EXPECT_EQ(strepToValue<Color>("12"), static_cast<Color>(12));
  EXPECT_EQ(strepToValue<Color>("-2"), colorDark_);
  EXPECT_EQ(sizeof(Color), 4u);
  EXPECT_EQ(initialValue<Color>(), colorNone_);
}

TEST(InlineArray, GrowsToTheIndexAndShrinksPastTrailingZeros) {
  Shelf shelf;
  ItemKey a(colorRed_, 1), b(colorBlue_, 2);
  shelf.itemIs(3, a);
  EXPECT_EQ(shelf.items(), 4u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(shelf.item(i), ItemKey());
  shelf.itemIs(4, b);  // index == count appends
  EXPECT_EQ(shelf.items(), 5u);
  shelf.itemDel(3);  // not the last: only zeroed
  EXPECT_EQ(shelf.items(), 5u);
  EXPECT_EQ(shelf.item(3), ItemKey());
  shelf.itemIs(1, a);
  shelf.itemDel(4);  // the last: shrinks past 3 and 2, stops at 1
  EXPECT_EQ(shelf.items(), 2u);
  shelf.itemDel(1);
  EXPECT_EQ(shelf.items(), 0u);
  shelf.itemDel(6);  // past the count: nothing
  EXPECT_EQ(shelf.items(), 0u);
  for (int i = 0; i < 8; ++i) shelf.itemIs(i, a);
  EXPECT_THROW(shelf.itemIs(8, a), RangeException);
  EXPECT_EQ(shelf.items(), 8u);
  shelf.itemDelAll();
  EXPECT_EQ(shelf, Shelf());
}

TEST(InlineArray, EqualityAndSerialisationUseOnlyTheUsedElements) {
  Shelf one, two;
  one.itemIs(0, ItemKey(colorRed_, 1));
  two.itemIs(0, ItemKey(colorRed_, 1));
  two.itemIs(1, ItemKey(colorRed_, 2));
  EXPECT_NE(one, two);
  EXPECT_TRUE(one < two);
  two.itemDel(1);
  EXPECT_EQ(one, two);
  EXPECT_EQ(one.hash(), two.hash());
  EXPECT_EQ(one.serializeLen(), 8u + 4 + 8);
  uint8_t buf[128];
  size_t len = one.serialize(buf);
  EXPECT_EQ(Shelf::deserializeLen(buf, sizeof(buf)), len);
  Shelf back;
  EXPECT_EQ(back.deserialize(buf, len), len);
  EXPECT_EQ(back, one);
  buf[8] = 9;  // count 9 > capacity 8
  EXPECT_THROW(back.deserialize(buf, sizeof(buf)), RangeException);
  EXPECT_THROW(Shelf::deserializeLen(buf, sizeof(buf)), RangeException);
  EXPECT_THAT([&] { strepToValue<Shelf>(valueToStrep(one)); },
              ThrowsMessage<InternalException>(
                  EndsWith(": No String constructor for Shelf - has collection")));
  one.itemIs(1, ItemKey(colorRed_, 2));
  two.itemIs(0, ItemKey(colorRed_, 2));
  two.itemIs(1, ItemKey(colorRed_, 1));
  EXPECT_NE(one, two) << "equality is positional";
}

TEST(ValueSet, SortedUniqueAndIndependentOfInsertionOrder) {
  ItemKeySet one, two;
  ItemKey a(colorRed_, 1), b(colorBlue_, 0), c(colorDark_, 3);
  EXPECT_TRUE(one.insert(a));
  EXPECT_TRUE(one.insert(b));
  EXPECT_FALSE(one.insert(a));
  EXPECT_TRUE(one.insert(c));
  two.insert(c);
  two.insert(b);
  two.insert(a);
  Basket x(1, one), y(1, two);
  EXPECT_EQ(x, y);
  EXPECT_EQ(x.hash(), y.hash());
  EXPECT_EQ(valueToStrep(x), valueToStrep(y));
  EXPECT_EQ(one.size(), 3u);
  EXPECT_EQ(*one.begin(), c) << "sorted: colorDark is -2";
  EXPECT_TRUE(one.contains(b));
  EXPECT_TRUE(one.erase(b));
  EXPECT_FALSE(one.erase(b));
  EXPECT_FALSE(one.contains(b));
  EXPECT_TRUE(Basket(1, one) < x) << "a proper prefix orders first";
  EXPECT_THROW(strepToValue<Basket>(valueToStrep(x)), InternalException);
}

TEST(Serial, PackedLittleEndianInDeclaredOrder) {
  static_assert(Serial<ItemKey>::fixed && Serial<ItemKey>::size == 8);
  static_assert(Serial<Item>::size == 8 + 4 + 4 + 2 + (4 + 3 * 4) + 8 + 8);
  static_assert(!Serial<Shelf>::fixed && Serial<Shelf>::size == 8 + 4 + 8 * 8);
  Item item(ItemKey(colorDark_, 0x01020304), true, Flags(0x10u), -2, Labels{0x0a0b0c}, 1, 0);
  uint8_t buf[Serial<Item>::size];
  std::memset(buf, 0xee, sizeof(buf));
  ASSERT_EQ(Serial<Item>::store(item, buf), sizeof(buf));
  const uint8_t expected[] = {0xfe, 0xff, 0xff, 0xff, 4,    3,    2,    1,  // key
                              1,    0,    0,    0,                          // bool as a word
                              0x10, 0,    0,    0,                          // flags
                              0xfe, 0xff,                                   // int16
                              1,    0,    0,    0,    0x0c, 0x0b, 0x0a, 0,  // one label
                              0,    0,    0,    0,    0,    0,    0,    0, 1, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(0, std::memcmp(buf, expected, sizeof(expected)));
  ItemKey key;
  Serial<Item>::loadKey(buf, key);
  EXPECT_EQ(key, item.key());
  Item back;
  Serial<Item>::load(buf, back);
  EXPECT_EQ(back, item);
  buf[16 + 2] = 4;  // label count 4 > 3
  EXPECT_THROW(Serial<Item>::load(buf, back), RangeException);
}

TEST(Parse, MalformedTextIsRefusedClearly) {
  const char* good = "Value('Shop::ItemKey', ** {'color': colorRed, 'index': 4})";
  EXPECT_EQ(strepToValue<ItemKey>(good), ItemKey(colorRed_, 4));
  EXPECT_EQ(
      strepToValue<ItemKey>("  Value( 'Shop::ItemKey' , ** { 'color' : 1 , 'index' : 0x10 } ) "),
      ItemKey(colorRed_, 16));
  const char* bad[] = {
      "",
      "Value('Shop::Item', ** {'color': colorRed, 'index': 4})",        // wrong type
      "Value('Shop::ItemKey', ** {'index': 4, 'color': colorRed})",     // wrong order
      "Value('Shop::ItemKey', ** {'color': colorRed})",                 // missing attribute
      "Value('Shop::ItemKey', ** {'color': colorRed, 'index': 4})x",    // trailing text
      "Value('Shop::ItemKey', ** {'color': colorRed, 'index': four})",  // not a number
      "Value('Shop::ItemKey', ** {'color': 'colorRed, 'index': 4})",    // unbalanced quote
      "Value('Shop::ItemKey', ** {'color': colorRed, 'index': 4}",      // unclosed
  };
  for (const char* text : bad) EXPECT_THROW(strepToValue<ItemKey>(text), Exception) << text;
  EXPECT_THROW(
      strepToValue<ItemKey>("Value('Shop::ItemKey', ** {'color': colorGreen, 'index': 4})"),
      RangeException);
  EXPECT_THROW(
      strepToValue<ItemKey>("Value('Shop::ItemKey', ** {'color': 1, 'index': 4294967296})"),
      RangeException);
  EXPECT_THROW(strepToValue<ItemKey>("Value('Shop::ItemKey', ** {'color': 1, 'index': -1})"),
               RangeException);
  EXPECT_THAT([] { strepToValue<ItemKey>("Value('Shop::ItemKey', ** {'colour': 1, 'index': 4})"); },
              ThrowsMessage<Exception>(HasSubstr("expected attribute 'color' at offset 27")));
}

}  // namespace
}  // namespace Zinc::Testing
