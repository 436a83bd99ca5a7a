#include <gtest/gtest.h>

#include "ArgumentXml.h"
#include "BlobSummary.h"
#include "Failure.h"
#include "LogUris.h"

namespace chdcp {
namespace {

TEST(ArgumentXml, ListsHaveNoDeclarationAndNoNamespace) {
  EXPECT_EQ(contentPathList({"/vsp/", "/vsp/CC/CAPTIONING"}),
            "<ContentPathList><ContentPath>/vsp/</ContentPath><ContentPath>/vsp/CC/CAPTIONING</ContentPath>"
            "</ContentPathList>");
  EXPECT_EQ(nodeAttributePathList({"/vsp/HDTV/NATIVE"}),
            "<NodeAttributePathList><NodeAttributePath>/vsp/HDTV/NATIVE</NodeAttributePath></NodeAttributePathList>");
}

TEST(ArgumentXml, ValuesAreEscaped) {
  EXPECT_EQ(
      parameterValueList({{"/vsp/A", "x<&>y"}, {"/vsp/B", ""}}),
      "<ParameterValueList><Parameter><ParameterPath>/vsp/A</ParameterPath><Value>x&lt;&amp;&gt;y</Value>"
      "</Parameter><Parameter><ParameterPath>/vsp/B</ParameterPath><Value></Value></Parameter></ParameterValueList>");
}

TEST(ArgumentXml, AnswersAreReadWithOrWithoutListElement) {
  const std::string listed =
      "<ParameterValueList>\n    <Parameter>\n        <ParameterPath>/vsp/A</ParameterPath>\n"
      "        <Value>On</Value>\n    </Parameter>\n</ParameterValueList>\n";
  EXPECT_EQ(parseParameterValueList(listed), (std::vector<PathValue>{{"/vsp/A", "On"}}));
  EXPECT_EQ(parseStructurePaths("<StructurePath>/vsp/A/</StructurePath>\n<StructurePath>/vsp/A/</StructurePath>\n"),
            (std::vector<std::string>{"/vsp/A/", "/vsp/A/"}));
  const auto nodes = parseNodeAttributes(
      "<Node><NodeAttributePath>/vsp/A</NodeAttributePath><Type>string(32)</Type><Access>readOnly</Access>"
      "<EventOnChange>0</EventOnChange></Node>");
  ASSERT_EQ(nodes.size(), 1U);
  EXPECT_EQ(nodes[0].path, "/vsp/A");
  EXPECT_EQ(nodes[0].access, "readOnly");
  EXPECT_EQ(parseSubTrees("<SubTree><URI>urn:x</URI><Location>/vsp/</Location></SubTree>"),
            (std::vector<PathValue>{{"urn:x", "/vsp/"}}));
  EXPECT_TRUE(parseParameterValueList("").empty());
}

TEST(ArgumentXml, BrokenAnswerIsTheBoxsError) {
  try {
    parseParameterValueList("<Parameter>");
    FAIL() << "no failure";
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.status(), kExitBoxError);
  }
}

TEST(LogUris, EmptyPartsAreDroppedAndPathsJoinTheBoxUrl) {
  EXPECT_EQ(splitLogUris(",,/log/messages,http://h/x.log,"),
            (std::vector<std::string>{"/log/messages", "http://h/x.log"}));
  EXPECT_EQ(logUrl("http://10.0.0.2:4000", "/log/a b.log"), "http://10.0.0.2:4000/log/a%20b.log");
  EXPECT_EQ(logUrl("http://10.0.0.2:4000", "http://h/x.log"), "http://h/x.log");
  EXPECT_EQ(logName("/log/messages"), "messages");
  EXPECT_EQ(blobEntry({"http://h/a.json", "/log/old.json", "/log/messages", "/log/chd-blob.json"}),
            "/log/chd-blob.json");
  EXPECT_EQ(blobEntry({"/log/messages"}), "");
}

TEST(BlobSummary, SectionsCountersAndHistories) {
  const Json::Value blob =
      parseBlob(R"({"2026-11-24T02:00:00":{"C-ClientParameters":{"DroppedKeys":[[1,"2026-11-24T01:59:00"]],)"
                R"("connection_duration":12,"connected":""},"Other":{"In_Standby":true}}})");
  EXPECT_EQ(
      summariseBlob(blob),
      (std::vector<std::string>{"Diagnostics blob generated 2026-11-24T02:00:00 (UTC)", "  C-ClientParameters",
                                "    DroppedKeys: 1 entry", "      1  2026-11-24T01:59:00", "    connected: (empty)",
                                "    connection_duration: 12 s", "  Other", "    In_Standby: yes"}));
  EXPECT_THROW(parseBlob("[1]"), Failure);
  EXPECT_THROW(parseBlob("{"), Failure);
}

}  // namespace
}  // namespace chdcp
