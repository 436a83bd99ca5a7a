#include <gtest/gtest.h>

#include <memory>

#include "TestServices.h"
#include "zuna_upnp/Action.h"

namespace {

using zuna_upnp::ActionT0;
using zuna_upnp::ActionT1;
using zuna_upnp::ActionT2;
using zuna_upnp::ActionT3;
using zuna_upnp::UPnPReturn;

class Handlers {
 public:
  UPnPReturn none() {
    ++calls;
    return UPnPReturn();
  }
  UPnPReturn stringOut(std::string& out) {
    ++calls;
    out = "answer";
    return UPnPReturn();
  }
  UPnPReturn unsignedOut(unsigned& out) {
    ++calls;
    out = 42;
    return UPnPReturn();
  }
  UPnPReturn echo(std::string in, std::string& out) {
    ++calls;
    out = "<" + in + ">";
    return UPnPReturn();
  }
  UPnPReturn depth(std::string node, unsigned depth, std::string& out) {
    ++calls;
    lastDepth = depth;
    out = node + ":" + std::to_string(depth);
    return UPnPReturn();
  }
  UPnPReturn twice(unsigned in, unsigned& out) {
    ++calls;
    out = in * 2;
    return UPnPReturn();
  }

  int calls = 0;
  unsigned lastDepth = 0;
};

TEST(ActionTypeCheck, MatchingSignaturesPass) {
  Handlers h;
  ActionT1<Handlers, std::string&> stringOut("A", &h, &Handlers::stringOut);
  stringOut.setOutArgs("Out:V");
  EXPECT_TRUE(stringOut.checkTypes("string &"));
  EXPECT_TRUE(stringOut.checkTypes("string&"));

  ActionT1<Handlers, unsigned&> unsignedOut("B", &h, &Handlers::unsignedOut);
  unsignedOut.setOutArgs("StateVariableValue:CurrentConfigurationVersion");
  EXPECT_TRUE(unsignedOut.checkTypes("ui4 &"));

  ActionT3<Handlers, std::string, unsigned, std::string&> depth("C", &h, &Handlers::depth);
  depth.setInArgs("StartingNode:A_ARG_TYPE_StructurePath SearchDepth:A_ARG_TYPE_SearchDepth");
  depth.setOutArgs("Result:A_ARG_TYPE_StructurePathList");
  EXPECT_TRUE(depth.checkTypes("string, ui4, string &"));
  EXPECT_TRUE(depth.checkTypes("string,ui4,string&"));

  ActionT2<Handlers, std::string, std::string&> echo("D", &h, &Handlers::echo);
  echo.setInArgs("Parameters:A_ARG_TYPE_ContentPathList");
  echo.setOutArgs("ParameterValueList:A_ARG_TYPE_ParameterValueList");
  EXPECT_TRUE(echo.checkTypes("string, string &"));
}

TEST(ActionTypeCheck, WrongTypesFail) {
  Handlers h;
  ActionT3<Handlers, std::string, unsigned, std::string&> depth("C", &h, &Handlers::depth);
  depth.setInArgs("StartingNode:P SearchDepth:D");
  depth.setOutArgs("Result:R");
  EXPECT_FALSE(depth.checkTypes("string, string, string &"));
  EXPECT_FALSE(depth.checkTypes("ui4, ui4, string &"));
  EXPECT_FALSE(depth.checkTypes("string, ui4, string"));
  EXPECT_FALSE(depth.checkTypes("string, ui4"));
  EXPECT_FALSE(depth.checkTypes("string, ui4, string &, string &"));
  EXPECT_FALSE(depth.checkTypes(""));

  ActionT1<Handlers, unsigned&> unsignedOut("B", &h, &Handlers::unsignedOut);
  unsignedOut.setOutArgs("Out:V");
  EXPECT_FALSE(unsignedOut.checkTypes("string &"));
}

TEST(ActionTypeCheck, ArgumentCountsMustMatchTheHandler) {
  Handlers h;
  ActionT2<Handlers, std::string, std::string&> echo("D", &h, &Handlers::echo);
  echo.setInArgs("");
  echo.setOutArgs("Out:V");
  EXPECT_FALSE(echo.checkTypes("string, string &"));  // no in-argument for the value parameter
  echo.setInArgs("In:V Extra:W");
  EXPECT_FALSE(echo.checkTypes("string, string &"));  // one in-argument too many
  echo.setInArgs("In:V");
  echo.setOutArgs("");
  EXPECT_FALSE(echo.checkTypes("string, string &"));  // the reference has no out-argument
  echo.setOutArgs("Out:V");
  EXPECT_TRUE(echo.checkTypes("string, string &"));
}

TEST(ActionTypeCheck, HandlerWithoutParametersPasses) {
  Handlers h;
  ActionT0<Handlers> none("GenCHDData", &h, &Handlers::none);
  none.setInArgs("");
  none.setOutArgs("");
  EXPECT_TRUE(none.checkTypes("string"));
  EXPECT_TRUE(none.checkTypes(""));
}

TEST(ActionDeclaration, ParsesArgumentAndVariablePairs) {
  Handlers h;
  ActionT3<Handlers, std::string, unsigned, std::string&> depth("C", &h, &Handlers::depth);
  depth.setInArgs("  StartingNode:A_ARG_TYPE_StructurePath   SearchDepth:A_ARG_TYPE_SearchDepth ");
  ASSERT_EQ(depth.getInArgs().size(), 2u);
  EXPECT_EQ(depth.getInArgs()[0].name, "StartingNode");
  EXPECT_EQ(depth.getInArgs()[0].stateVariable, "A_ARG_TYPE_StructurePath");
  EXPECT_EQ(depth.getInArgs()[1].name, "SearchDepth");
  EXPECT_EQ(depth.getInArgs()[1].stateVariable, "A_ARG_TYPE_SearchDepth");
  depth.setOutArgs("");
  EXPECT_TRUE(depth.getOutArgs().empty());
  EXPECT_EQ(depth.getName(), "C");
}

TEST(ActionInvoke, ConvertsInputsAndOutputs) {
  Handlers h;
  ActionT3<Handlers, std::string, unsigned, std::string&> depth("C", &h, &Handlers::depth);
  depth.setInArgs("StartingNode:P SearchDepth:D");
  depth.setOutArgs("Result:R");
  std::vector<std::string> outputs;
  UPnPReturn result = depth.invoke({"/vsp/", "4294967295"}, outputs);
  EXPECT_TRUE(result.isSuccess());
  EXPECT_EQ(result.code, 0);
  EXPECT_EQ(h.lastDepth, 4294967295u);
  EXPECT_EQ(outputs, std::vector<std::string>{"/vsp/:4294967295"});

  ActionT1<Handlers, unsigned&> unsignedOut("B", &h, &Handlers::unsignedOut);
  unsignedOut.setOutArgs("Out:V");
  EXPECT_TRUE(unsignedOut.invoke({}, outputs).isSuccess());
  EXPECT_EQ(outputs, std::vector<std::string>{"42"});

  ActionT2<Handlers, unsigned, unsigned&> twice("T", &h, &Handlers::twice);
  EXPECT_TRUE(twice.invoke({"21"}, outputs).isSuccess());
  EXPECT_EQ(outputs, std::vector<std::string>{"42"});
}

class BadUnsigned : public ::testing::TestWithParam<const char*> {};

TEST_P(BadUnsigned, AnswersInvalidArgsWithoutRunningTheHandler) {
  Handlers h;
  ActionT3<Handlers, std::string, unsigned, std::string&> depth("C", &h, &Handlers::depth);
  depth.setInArgs("StartingNode:P SearchDepth:D");
  depth.setOutArgs("Result:R");
  std::vector<std::string> outputs;
  UPnPReturn result = depth.invoke({"/vsp/", GetParam()}, outputs);
  EXPECT_FALSE(result.isSuccess());
  EXPECT_EQ(result.code, 402);
  EXPECT_EQ(result.description, "Invalid Args");
  EXPECT_EQ(h.calls, 0);
}

INSTANTIATE_TEST_SUITE_P(Texts, BadUnsigned,
                         ::testing::Values("-1", "abc", "4294967296", "", " 1", "1 ", "+1", "0x10", "1.5",
                                           "99999999999999999999"));

TEST(ArgTypeUnsigned, ParsesTheWholeRange) {
  unsigned value = 7;
  EXPECT_TRUE(zuna_upnp::detail::ArgType<unsigned>::parse("0", value));
  EXPECT_EQ(value, 0u);
  EXPECT_TRUE(zuna_upnp::detail::ArgType<unsigned>::parse("4294967295", value));
  EXPECT_EQ(value, 4294967295u);
  EXPECT_FALSE(zuna_upnp::detail::ArgType<unsigned>::parse("4294967296", value));
  EXPECT_EQ(value, 4294967295u);  // unchanged on failure
}

TEST(ActionInvoke, WrongNumberOfInputsIsInvalidArgs) {
  Handlers h;
  ActionT2<Handlers, std::string, std::string&> echo("D", &h, &Handlers::echo);
  echo.setInArgs("In:V");
  echo.setOutArgs("Out:V");
  std::vector<std::string> outputs;
  EXPECT_EQ(echo.invoke({}, outputs).code, 402);
  EXPECT_EQ(echo.invoke({"a", "b"}, outputs).code, 402);
  EXPECT_EQ(h.calls, 0);
  EXPECT_TRUE(echo.invoke({"a"}, outputs).isSuccess());
  EXPECT_EQ(outputs, std::vector<std::string>{"<a>"});
}

TEST(ActionInvoke, FailureOfTheHandlerIsReturned) {
  upnp_test::TestDevice device;
  std::vector<std::string> outputs;
  UPnPReturn result = device.calculator->findAction("Reset")->invoke({}, outputs);
  EXPECT_FALSE(result.isSuccess());
  EXPECT_EQ(result.code, 701);
  EXPECT_EQ(result.description, "Reset refused");
  EXPECT_EQ(zuna_upnp::detail::invalidArgs().code, 402);
  EXPECT_EQ(zuna_upnp::detail::invalidArgs().kind, 1);
}

}  // namespace
