#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <thread>
#include <vector>

#include "zinc/Collection.h"
#include "zinc/Dir.h"
#include "zinc/Reactor.h"
#include "zinc/tests/TestSupport.h"

namespace {

using Zinc::Name;

struct Neighbor {
  Name id;
  int metric = 0;
  Name key() const { return id; }
  bool operator==(const Neighbor&) const = default;
};

// A small entity with one attribute and two collections, declared the way library entities are.
class Router : public Zinc::Entity {
  ZINC_ENTITY(Router, "Test::Router")

 public:
  class NotifieeConst : public Zinc::NotifieeConstOf<Router> {
   public:
    virtual void onEnabled() {}
    virtual void onRoute(const uint32_t&) {}
    virtual void onPeer(const Name&) {}
    virtual void onNeighbor(const Name&) {}
  };
  ZINC_NOTIFIEE(Router)
  ZINC_ATTRIBUTE(enabled, Enabled, bool)
  ZINC_ORDERED_COLLECTION(route, Route, uint32_t, Zinc::String)
  ZINC_HASH_COLLECTION(peer, Peer, Name, Ptr)
  ZINC_ORDERED_COLLECTION(neighbor, Neighbor, Name, Neighbor)

 public:
  explicit Router(Name name) : Entity(std::move(name)) {}
  ~Router() override { ++destroyed; }
  static inline int destroyed = 0;
};

Router::Ptr routerFactory(const Name& name) { return Zinc::makePtr<Router>(name); }

// Records every notification as "<attr>:<key>", with what the notifier held at the time.
class Recorder : public Router::NotifieeConst {
 public:
  void onEnabled() override { log.push_back("enabled:" + std::to_string(notifier()->enabled())); }
  void onRoute(const uint32_t& k) override {
    log.push_back("route:" + std::to_string(k) + "=" + notifier()->route(k).str());
  }
  void onPeer(const Name& k) override {
    log.push_back("peer:" + k.str() + (notifier()->peer(k) ? "+" : "-"));
  }
  std::vector<std::string> log;
};

TEST(Collection, NotifiesAfterAddReplaceAndDelete) {
  auto r = routerFactory("r1");
  Recorder rec;
  rec.notifierIs(r);
  r->routeIs(16, "a");
  r->routeIs(16, "a");  // no change, no notification
  r->routeIs(16, "b");
  r->routeDel(16);
  r->routeDel(16);  // absent: not an error, no notification
  r->enabledIs(true);
  r->enabledIs(true);
  r->routeNotify(7);
  EXPECT_EQ(rec.log, (std::vector<std::string>{"route:16=a", "route:16=b", "route:16=", "enabled:1",
                                               "route:7="}));
}

TEST(Collection, LookupIterationAndDeleteAll) {
  auto r = routerFactory("r1");
  EXPECT_EQ(r->route(3), Zinc::String());
  EXPECT_EQ(r->peer("x"), nullptr);
  for (uint32_t k : {30u, 10u, 20u}) r->routeIs(k, std::to_string(k));
  std::vector<uint32_t> order;
  for (const auto& [k, v] : r->routeColl()) order.push_back(k);
  EXPECT_EQ(order, (std::vector<uint32_t>{10, 20, 30}));
  EXPECT_EQ(r->routeDel(20), Zinc::String("20"));
  EXPECT_FALSE(r->routeDel(20).has_value());
  Recorder rec;
  rec.notifierIs(r);
  r->routeDelAll();
  EXPECT_EQ(r->routeCount(), 0u);
  EXPECT_EQ(rec.log, (std::vector<std::string>{"route:10=", "route:30="}));
}

TEST(Collection, KeysTakenFromValueOrEntityName) {
  auto r = routerFactory("r1");
  Recorder rec;
  rec.notifierIs(r);
  r->neighborIs(Neighbor{"n1", 10});
  EXPECT_EQ(r->neighbor("n1").metric, 10);
  auto p1 = routerFactory("p1");
  auto p2 = routerFactory("p2");
  r->peerIs(p1);
  r->peerIs(p2);
  r->peerDel("p1");
  EXPECT_EQ(r->peer("p2"), p2);
  std::vector<std::string> peers;
  for (const auto& [k, v] : r->peerColl()) peers.push_back(v->name().str());
  EXPECT_EQ(peers, std::vector<std::string>{"p2"});
  EXPECT_EQ(rec.log, (std::vector<std::string>{"peer:p1+", "peer:p2+", "peer:p1-"}));
}

// Reads and writes that return to one key, between erasures, re-insertions and rehashing
// growth, and copies taken along the way: each collection answers as a plain map does.
template <Zinc::CollKind kind>
void checkAgainstMap() {
  Zinc::Coll<uint32_t, int, kind> coll;
  std::map<uint32_t, int> model;
  std::vector<std::pair<Zinc::Coll<uint32_t, int, kind>, std::map<uint32_t, int>>> copies;
  uint32_t seed = 1;
  for (int step = 0; step < 20000; ++step) {
    seed = seed * 1103515245u + 12345u;
    const uint32_t key = (seed >> 8) % (step < 10000 ? 3000 : 40);  // grow, then churn few keys
    const uint32_t op = (seed >> 20) % 8;
    if (op == 0) {
      const auto erased = coll.erase(key);
      ASSERT_EQ(erased.has_value(), model.erase(key) == 1);
    } else if (op < 4) {
      const int value = int(seed % 5);
      ASSERT_EQ(coll.set(key, value), !model.contains(key) || model[key] != value);
      model[key] = value;
    } else if (op == 4 && step % 1000 == 4) {
      copies.emplace_back(coll, model);
    }
    ASSERT_EQ(coll.contains(key), model.contains(key)) << "step " << step;
    ASSERT_EQ(coll.get(key), model.contains(key) ? model[key] : 0) << "step " << step;
  }
  ASSERT_EQ(coll.size(), model.size());
  for (auto& [copy, then] : copies) {
    for (uint32_t key = 0; key < 3000; ++key) {
      const int* v = copy.find(key);
      ASSERT_EQ(v != nullptr, then.contains(key));
      if (v) {
        ASSERT_EQ(*v, then[key]);
      }
    }
  }
}

TEST(Collection, RepeatedAccessToOneKeyMatchesAPlainMap) {
  checkAgainstMap<Zinc::CollKind::hash>();
  checkAgainstMap<Zinc::CollKind::ordered>();
}

// Drops the only reference to its notifier while being notified.
class LastReference : public Router::NotifieeConst {
 public:
  void onEnabled() override { notifierIs(nullptr); }
};

TEST(Notifiee, NotifierSurvivesLosingItsLastReferenceDuringDelivery) {
  Router::destroyed = 0;
  LastReference n1, n2;
  Router* raw;
  {
    auto r = routerFactory("r");
    raw = r.get();
    n1.notifierIs(r);
    n2.notifierIs(r);
  }
  raw->enabledIs(true);  // both unbind; the entity goes only after the delivery
  EXPECT_EQ(Router::destroyed, 1);
}

TEST(Notifiee, BindRebindUnbindAndDestruction) {
  auto a = routerFactory("a");
  auto b = routerFactory("b");
  {
    Recorder rec;
    rec.notifierIs(a);
    EXPECT_TRUE(a->notifieeList().contains(&rec));
    rec.notifierIs(b);
    EXPECT_FALSE(a->notifieeList().contains(&rec));
    EXPECT_TRUE(b->notifieeList().contains(&rec));
    a->enabledIs(true);
    b->enabledIs(true);
    EXPECT_EQ(rec.log, std::vector<std::string>{"enabled:1"});
    rec.notifierIs(nullptr);
    b->enabledIs(false);
    EXPECT_EQ(rec.log.size(), 1u);
    rec.notifierIs(b);
  }
  // Destroyed while bound: gone from the list, and the notifier still works.
  EXPECT_TRUE(b->notifieeList().empty());
  b->enabledIs(true);
}

TEST(Notifiee, HoldsItsNotifierAlive) {
  Router::destroyed = 0;
  Recorder rec;
  {
    auto r = routerFactory("kept");
    rec.notifierIs(r);
  }
  EXPECT_EQ(Router::destroyed, 0);
  EXPECT_EQ(rec.notifier()->name(), Name("kept"));
  rec.notifierIs(nullptr);
  EXPECT_EQ(Router::destroyed, 1);
}

// Unbinds itself, or destroys another notifiee, in the middle of a delivery.
class Unbinder : public Router::NotifieeConst {
 public:
  void onEnabled() override {
    ++calls;
    Zinc::Ptr<Router const> router = notifier();
    if (victim) victim->reset();
    notifierIs(nullptr);
    // Counted while the delivery still walks the list, with the holes the removals left.
    listenersDuringDelivery = router->notifieeList().size();
  }
  std::unique_ptr<Recorder>* victim = nullptr;
  int calls = 0;
  size_t listenersDuringDelivery = 0;
};

TEST(Notifiee, UnbindingDuringDeliveryIsSafe) {
  auto r = routerFactory("r");
  Recorder before;
  before.notifierIs(r);
  Unbinder unbinder;
  unbinder.notifierIs(r);
  auto after = std::make_unique<Recorder>();
  after->notifierIs(r);
  unbinder.victim = &after;
  r->enabledIs(true);
  EXPECT_EQ(unbinder.calls, 1);
  EXPECT_EQ(before.log.size(), 1u);
  EXPECT_EQ(unbinder.listenersDuringDelivery, 1u);
  EXPECT_EQ(r->notifieeList().size(), 1u);
  r->enabledIs(false);
  EXPECT_EQ(unbinder.calls, 1);
  EXPECT_EQ(before.log.size(), 2u);
}

class ZeroRefs : public Zinc::ZeroReferencesNotifiee {
 public:
  void onZeroReferences(const Zinc::PtrInterface* object) override {
    // Runs before destruction: the entity is still whole.
    names.push_back(static_cast<const Router*>(object)->name().str());
    destroyedAtCall = Router::destroyed;
  }
  std::vector<std::string> names;
  int destroyedAtCall = -1;
};

TEST(Ptr, CountsAndRunsZeroReferencesNotifieeBeforeDestruction) {
  Router::destroyed = 0;
  ZeroRefs zero;
  {
    auto r = routerFactory("gone");
    r->zeroReferencesNotifieeIs(&zero);
    EXPECT_EQ(r->references(), 1u);
    Router::PtrConst c = r;
    Zinc::Entity::PtrConst e = c;
    EXPECT_EQ(r->references(), 3u);
    Router::Ptr moved = std::move(r);
    EXPECT_EQ(moved->references(), 3u);
    EXPECT_EQ(Zinc::ptrCast<Router const>(e), c);
    EXPECT_EQ(Zinc::ptrCast<Zinc::Dir const>(e), nullptr);
  }
  EXPECT_EQ(zero.names, std::vector<std::string>{"gone"});
  EXPECT_EQ(zero.destroyedAtCall, 0);
  EXPECT_EQ(Router::destroyed, 1);
}

TEST(Ptr, AtomicCountsAcrossThreads) {
  Zinc::threadSafePtrsIs(true);
  Router::destroyed = 0;
  {
    auto r = routerFactory("shared");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([r] {
        for (int i = 0; i < 100000; ++i) {
          Router::PtrConst copy = r;
          Router::Ptr again = r;
        }
      });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(r->references(), 1u);
  }
  EXPECT_EQ(Router::destroyed, 1);
  Zinc::threadSafePtrsIs(false);
}

TEST(Dir, NotifiesEntriesAndSetsParent) {
  auto dir = Zinc::dirFactory("labelRequest");
  ZincTest::DirEntryLog rec;
  rec.notifierIs(dir);
  auto r = routerFactory("ospf");
  dir->entryIs(r);
  dir->entryIs(r);  // same entity again: no change
  EXPECT_EQ(r->handleParent(), dir.get());
  EXPECT_EQ(dir->entry<Router>("ospf"), r);
  EXPECT_EQ(dir->entry<Zinc::Dir>("ospf"), nullptr);
  EXPECT_EQ(dir->entryDel("ospf"), r);
  EXPECT_EQ(r->handleParent(), nullptr);
  EXPECT_EQ(dir->entryDel("ospf"), nullptr);
  EXPECT_EQ(rec.log, (std::vector<std::string>{"ospf+", "ospf-"}));
}

TEST(Reactor, NullInputNamesParameterAndAttribute) {
  Router::PtrConst none;
  EXPECT_THAT(
      [&] {
        Zinc::requireInput(none, "_dot1qTagToVlanColl",
                           "Mpls::LfibStatusProducerSm::dot1qTagToVlanColl");
      },
      ::testing::ThrowsMessage<Zinc::NullPointerException>(
          "null _dot1qTagToVlanColl parameter to mutator for "
          "Mpls::LfibStatusProducerSm::dot1qTagToVlanColl not allowed"));
  EXPECT_NO_THROW(Zinc::requireInput(routerFactory("x"), "_r", "T::r"));
}

}  // namespace
