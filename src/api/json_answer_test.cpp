#include "api/json_answer.hpp"

#include <gtest/gtest.h>

namespace spotserver {
namespace {

std::string typeOf(const httplib::Response& response) {
  return response.get_header_value("Content-Type");
}

TEST(JsonAnswer, HasItsTypeOnceItIsFinished) {
  httplib::Response response;
  setJson({}, response, "{}");
  EXPECT_EQ(response.body, "{}");
  EXPECT_NE(typeOf(response), "application/json") << "the library would compress it";
  finishJson(response);
  EXPECT_EQ(typeOf(response), "application/json");
  EXPECT_EQ(response.get_header_value_count("Content-Type"), 1u);
}

TEST(JsonAnswer, ASecondBodyReplacesTheFirst) {
  httplib::Response response;
  setJson({}, response, "{\"first\":1}");
  setJson({}, response, "{}");
  finishJson(response);
  EXPECT_EQ(response.body, "{}");
  EXPECT_EQ(response.get_header_value_count("Content-Type"), 1u);
}

TEST(JsonAnswer, SeveralRangesNameTheTypeInEachPart) {
  httplib::Request request;
  request.ranges = {{0, 1}, {2, 3}};
  httplib::Response response;
  setJson(request, response, "{\"a\":1}");
  EXPECT_EQ(typeOf(response), "application/json");
}

TEST(JsonAnswer, AnErrorIsSentWhole) {
  for (const int status : {401, 404, 429, 500}) {
    httplib::Request request;
    request.ranges = {{0, 1}, {2, 3}};
    httplib::Response response;
    response.status = status;
    setJson(request, response, "{\"error\":\"x\"}");
    EXPECT_TRUE(request.ranges.empty()) << status;
    finishJson(response);
    EXPECT_EQ(typeOf(response), "application/json") << status;
  }
}

TEST(JsonAnswer, OtherTypesAreLeftAlone) {
  httplib::Response response;
  finishJson(response);
  EXPECT_FALSE(response.has_header("Content-Type"));
  response.set_content("text", "text/plain");
  finishJson(response);
  EXPECT_EQ(typeOf(response), "text/plain");
}

}  // namespace
}  // namespace spotserver
