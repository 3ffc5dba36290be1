#include <gtest/gtest.h>

#include <vector>

#include "platform/hub/EntityManager.h"
#include "zinc/Exception.h"
#include "zinc/tests/TestSupport.h"

namespace {

TEST(EntityManager, DirectoriesByPathAndEntityLifecycle) {
  auto hub = Hub::entityManagerFactory("sysdb");
  EXPECT_EQ(hub->dir("mpls/config/labelRequest/"), nullptr);
  auto requests = hub->dirIs("mpls/config/labelRequest/");
  EXPECT_EQ(hub->dirIs("/mpls/config/labelRequest"), requests);
  EXPECT_EQ(hub->dir("mpls/config")->entry<Zinc::Dir>("labelRequest"), requests);
  EXPECT_EQ(requests->handleParent(), hub->dir("mpls/config").get());

  ZincTest::DirEntryLog log;
  log.notifierIs(requests);
  auto ospf = Zinc::dirFactory("ospf");
  hub->entityIs("mpls/config/labelRequest/", ospf);
  EXPECT_EQ(hub->entity("mpls/config/labelRequest/ospf"), ospf);
  EXPECT_EQ(hub->entity<Zinc::Dir>("mpls/config/labelRequest/ospf"), ospf);
  EXPECT_EQ(hub->entityDel("mpls/config/labelRequest/ospf"), ospf);
  EXPECT_EQ(hub->entityDel("mpls/config/labelRequest/ospf"), nullptr);
  EXPECT_EQ(hub->entityDel("no/such/thing"), nullptr);
  EXPECT_EQ(log.log, (std::vector<std::string>{"ospf+", "ospf-"}));
}

TEST(EntityManager, PathThroughANonDirectoryIsRejected) {
  auto hub = Hub::entityManagerFactory("sysdb");
  hub->entityIs("a", Hub::entityManagerFactory("leaf"));
  EXPECT_EQ(hub->dir("a/leaf"), nullptr);
  EXPECT_THROW(hub->dirIs("a/leaf/x"), Zinc::RangeException);
  EXPECT_THROW(hub->dirIs("a//b"), Zinc::RangeException);
  EXPECT_NE(hub->entity("a/leaf"), nullptr);
}

}  // namespace
