#include <gtest/gtest.h>

#include <thread>

#include "zuna_upnp/Types.h"

namespace {

using zuna_upnp::Var;
using zuna_upnp::Vars;
typedef std::vector<std::pair<std::string, std::string>> Values;

Vars* makeVars() {
  Vars* vars = new Vars();
  vars->add(Var("A_ARG_TYPE_Text", "string", "", false));
  vars->add(Var("LogURIs", "string", "", true));
  vars->add(Var("Count", "ui4", "0", false));
  vars->add(Var("ChdBlobUpdated", "boolean", "false", true));
  return vars;
}

TEST(Vars, KeepsDeclarationOrderAndDefaults) {
  std::unique_ptr<Vars> vars(makeVars());
  EXPECT_FALSE(vars->add(Var("LogURIs", "ui4", "1", false)));
  const std::vector<Var> all = vars->getAll();
  ASSERT_EQ(all.size(), 4u);
  EXPECT_EQ(all[1].getName(), "LogURIs");
  EXPECT_EQ(all[1].getType(), "string");
  EXPECT_TRUE(all[1].isEvented());
  EXPECT_EQ(all[2].getDefault(), "0");
  EXPECT_EQ(vars->getValue("Count"), "0");
  EXPECT_EQ(vars->getValue("Missing"), "");
  EXPECT_TRUE(vars->has("Count"));
  EXPECT_FALSE(vars->has("count"));
  EXPECT_EQ(vars->getEventedValues(), (Values{{"LogURIs", ""}, {"ChdBlobUpdated", "false"}}));
}

TEST(Vars, TracksChangesOfEventedVariablesOnly) {
  std::unique_ptr<Vars> vars(makeVars());
  EXPECT_FALSE(vars->hasChanges());
  EXPECT_TRUE(vars->setValue("Count", "5"));
  EXPECT_FALSE(vars->hasChanges());
  EXPECT_EQ(vars->getValue("Count"), "5");
  EXPECT_FALSE(vars->setValue("Missing", "x"));

  EXPECT_TRUE(vars->setValue("ChdBlobUpdated", "true"));
  EXPECT_TRUE(vars->setValue("LogURIs", "a,b"));
  EXPECT_TRUE(vars->hasChanges());
  EXPECT_EQ(vars->takeChanges(), (Values{{"LogURIs", "a,b"}, {"ChdBlobUpdated", "true"}}));
  EXPECT_FALSE(vars->hasChanges());
  EXPECT_TRUE(vars->takeChanges().empty());
}

TEST(Vars, SameValueIsStillAChange) {
  std::unique_ptr<Vars> vars(makeVars());
  vars->setValue("LogURIs", "");
  EXPECT_EQ(vars->takeChanges(), (Values{{"LogURIs", ""}}));
}

TEST(Vars, ConcurrentWritersLoseNoChange) {
  std::unique_ptr<Vars> vars(makeVars());
  std::thread writer([&vars] {
    for (int i = 0; i < 2000; ++i) {
      vars->setValue("LogURIs", std::to_string(i));
    }
  });
  int taken = 0;
  for (int i = 0; i < 2000; ++i) {
    taken += static_cast<int>(vars->takeChanges().size());
  }
  writer.join();
  taken += static_cast<int>(vars->takeChanges().size());
  EXPECT_GE(taken, 1);
  EXPECT_EQ(vars->getValue("LogURIs"), "1999");
  EXPECT_FALSE(vars->hasChanges());
}

}  // namespace
