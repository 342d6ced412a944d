// ContentDirectory request analysis: Browse and Search arguments read from
// request documents, their checks and resets, the release operations, and
// the item and container Filter parsers.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "dlna_dms.h"
#include "service_test_support.h"
#include "services/dmsCdsMgrApi.h"
#include "util/dlnaUtil_didl.h"

using servicetest::ActionRequest;
using servicetest::TraceLevel;

namespace {

constexpr char kCdsId[] = "urn:upnp-org:serviceId:ContentDirectory";

std::string element(const char *name, const std::string &value) {
  return std::string("<") + name + ">" + value + "</" + name + ">";
}

std::string actionBody(const char *action, const std::string &arguments) {
  return std::string("<u:") + action + " xmlns:u=\"" + DMS_CDS_SERVICE_TYPE + "\">" + arguments +
         "</u:" + action + ">";
}

// The Browse arguments that control points send; each may be replaced or
// left out (an empty optional value is written as given).
struct BrowseRequest {
  std::string objectId = element("ObjectID", "0");
  std::string browseFlag = element("BrowseFlag", "BrowseDirectChildren");
  std::string filter = element("Filter", "*");
  std::string startingIndex = element("StartingIndex", "0");
  std::string requestedCount = element("RequestedCount", "10");
  std::string sortCriteria = element("SortCriteria", "");

  std::string body() const {
    return actionBody("Browse", objectId + browseFlag + filter + startingIndex + requestedCount +
                                    sortCriteria);
  }
};

struct SearchRequest {
  std::string containerId = element("ContainerID", "0");
  std::string searchCriteria = element("SearchCriteria", "dc:title contains \"a\"");
  std::string filter = element("Filter", "*");
  std::string startingIndex = element("StartingIndex", "0");
  std::string requestedCount = element("RequestedCount", "10");
  std::string sortCriteria = element("SortCriteria", "");

  std::string body() const {
    return actionBody("Search", containerId + searchCriteria + filter + startingIndex +
                                    requestedCount + sortCriteria);
  }
};

class CdsRequestTest : public ::testing::Test {
 protected:
  void TearDown() override {
    dmsCdsReleaseReqArgsBrowse(&browse_);
    dmsCdsReleaseReqArgsSearch(&search_);
  }

  int32_t analyzeBrowse(const BrowseRequest &request) {
    ActionRequest action(kCdsId, "Browse", request.body().c_str());
    return dmsCdsAnalyzeReqBrowse(&handle_, action.get(), &browse_);
  }
  int32_t analyzeSearch(const SearchRequest &request) {
    ActionRequest action(kCdsId, "Search", request.body().c_str());
    return dmsCdsAnalyzeReqSearch(&handle_, action.get(), &search_);
  }

  // A failed analysis leaves the record as if nothing had been read.
  void expectBrowseReset() const {
    EXPECT_EQ(browse_.objectId, -1);
    EXPECT_EQ(browse_.startingIndex, 0);
    EXPECT_EQ(browse_.requestedCount, 0);
    EXPECT_EQ(browse_.filter, nullptr);
    EXPECT_EQ(browse_.sortCriteria, nullptr);
  }
  void expectSearchReset() const {
    EXPECT_EQ(search_.containerId, -1);
    EXPECT_EQ(search_.startingIndex, 0);
    EXPECT_EQ(search_.requestedCount, 0);
    EXPECT_EQ(search_.searchCriteria, nullptr);
    EXPECT_EQ(search_.filter, nullptr);
    EXPECT_EQ(search_.sortCriteria, nullptr);
  }

  dmsCdsMgrHandle handle_;
  dmsCdsBrowseArgs browse_;
  dmsCdsSearchArgs search_;
};

}  // namespace

// ---- Browse ----------------------------------------------------------------

TEST_F(CdsRequestTest, BrowseReadsEveryArgument) {
  BrowseRequest request;
  request.objectId = element("ObjectID", "1005");
  request.filter = element("Filter", "dc:title,res");
  request.startingIndex = element("StartingIndex", "3");
  request.requestedCount = element("RequestedCount", "7");
  request.sortCriteria = element("SortCriteria", "+dc:title");
  ASSERT_EQ(analyzeBrowse(request), 0);
  EXPECT_EQ(browse_.objectId, 1005);
  EXPECT_EQ(browse_.browseFlag, DMS_CDS_BROWSE_DIRECT_CHILDREN);
  EXPECT_STREQ(browse_.filter, "dc:title,res");
  EXPECT_EQ(browse_.startingIndex, 3);
  EXPECT_EQ(browse_.requestedCount, 7);
  EXPECT_STREQ(browse_.sortCriteria, "+dc:title");
  for (uint8_t flag : browse_.filterFlags) EXPECT_EQ(flag, 0);  // set by the response, not here

  EXPECT_EQ(dmsCdsReleaseReqArgsBrowse(&browse_), 0);
  expectBrowseReset();
  EXPECT_EQ(browse_.browseFlag, 0u);
}

TEST_F(CdsRequestTest, BrowseFlagIsMatchedExactly) {
  BrowseRequest request;
  request.browseFlag = element("BrowseFlag", "BrowseMetadata");
  ASSERT_EQ(analyzeBrowse(request), 0);
  EXPECT_EQ(browse_.browseFlag, DMS_CDS_BROWSE_METADATA);
  dmsCdsReleaseReqArgsBrowse(&browse_);

  for (const char *flag : {"browsemetadata", "BrowseDirectChildren ", "BrowseRecursive", ""}) {
    SCOPED_TRACE(flag);
    request.browseFlag = element("BrowseFlag", flag);
    std::string out = captureStdout(
        [&] { EXPECT_EQ(analyzeBrowse(request), DMS_ERR_INVALID_BROWSE_FLAG); });
    EXPECT_NE(out.find(std::string("Extracted Browse Flag value (") + flag + ") is not valid"),
              std::string::npos)
        << out;
    EXPECT_EQ(browse_.browseFlag, 0u);
    expectBrowseReset();
  }
}

TEST_F(CdsRequestTest, BrowseWithoutObjectIdFallsBackToContainerId) {
  struct Case {
    const char *containerId;
    int32_t objectId;
  };
  // Ids below the first entry id (1001) mean the root.
  for (const Case &c : {Case{"42", 0}, Case{"1000", 0}, Case{"-7", 0}, Case{"1001", 1001},
                        Case{"1500", 1500}}) {
    SCOPED_TRACE(c.containerId);
    BrowseRequest request;
    request.objectId = element("ContainerID", c.containerId);
    TraceLevel level(OSAL_TRACE_ERR | OSAL_TRACE_WARN);
    std::string out = captureStdout([&] { EXPECT_EQ(analyzeBrowse(request), 0); });
    EXPECT_EQ(browse_.objectId, c.objectId);
    EXPECT_NE(out.find("If ObjectID is not found, Try getting ContentID"), std::string::npos)
        << out;
    dmsCdsReleaseReqArgsBrowse(&browse_);
  }
}

TEST_F(CdsRequestTest, BrowseWithNeitherObjectIdNorContainerIdIsInvalidArgs) {
  BrowseRequest request;
  request.objectId.clear();
  EXPECT_EQ(analyzeBrowse(request), DMS_ERR_NOT_FOUND);
  expectBrowseReset();
}

TEST_F(CdsRequestTest, BrowseObjectIdWinsOverContainerIdAndNegativeMeansRoot) {
  BrowseRequest request;
  request.objectId = element("ObjectID", "1200") + element("ContainerID", "1500");
  ASSERT_EQ(analyzeBrowse(request), 0);
  EXPECT_EQ(browse_.objectId, 1200);
  dmsCdsReleaseReqArgsBrowse(&browse_);

  request.objectId = element("ObjectID", "-5");
  ASSERT_EQ(analyzeBrowse(request), 0);
  EXPECT_EQ(browse_.objectId, 0);
}

TEST_F(CdsRequestTest, BrowseCountsMustNotBeNegative) {
  BrowseRequest request;
  request.requestedCount = element("RequestedCount", "0");
  ASSERT_EQ(analyzeBrowse(request), 0);
  EXPECT_EQ(browse_.requestedCount, 0);
  dmsCdsReleaseReqArgsBrowse(&browse_);

  request.requestedCount = element("RequestedCount", "-1");
  std::string out =
      captureStdout([&] { EXPECT_EQ(analyzeBrowse(request), DMS_ERR_INVALID_BROWSE_FLAG); });
  EXPECT_NE(out.find("Extracted Browse Request Argument value is not valid"), std::string::npos)
      << out;
  expectBrowseReset();

  request = BrowseRequest();
  request.startingIndex = element("StartingIndex", "-2");
  EXPECT_EQ(analyzeBrowse(request), DMS_ERR_INVALID_BROWSE_FLAG);
  expectBrowseReset();
}

TEST_F(CdsRequestTest, BrowseMissingArgumentIsNotFoundAndFreesWhatWasRead) {
  // Each argument left out in turn; the ones read before it are released.
  for (int missing = 1; missing <= 5; ++missing) {
    SCOPED_TRACE(missing);
    BrowseRequest request;
    std::string *fields[] = {&request.objectId,     &request.browseFlag,
                             &request.filter,       &request.startingIndex,
                             &request.requestedCount, &request.sortCriteria};
    fields[missing]->clear();
    EXPECT_EQ(analyzeBrowse(request), DMS_ERR_NOT_FOUND);
    expectBrowseReset();
  }
}

TEST_F(CdsRequestTest, BrowseAcceptsEmptyFilterAndSortCriteria) {
  BrowseRequest request;
  request.filter = "<Filter/>";
  request.sortCriteria = "<SortCriteria></SortCriteria>";
  ASSERT_EQ(analyzeBrowse(request), 0);
  EXPECT_STREQ(browse_.filter, "");
  EXPECT_STREQ(browse_.sortCriteria, "");
}

TEST_F(CdsRequestTest, BrowseWithoutDocumentFails) {
  ActionRequest action(kCdsId, "Browse");  // no request document
  EXPECT_EQ(dmsCdsAnalyzeReqBrowse(&handle_, action.get(), &browse_), DMS_ERR_INVALID_PARAM);
  expectBrowseReset();
}

// ---- Search ----------------------------------------------------------------

TEST_F(CdsRequestTest, SearchReadsEveryArgument) {
  SearchRequest request;
  request.containerId = element("ContainerID", "1002");
  request.filter = element("Filter", "dc:title");
  request.startingIndex = element("StartingIndex", "1");
  request.requestedCount = element("RequestedCount", "0");
  request.sortCriteria = element("SortCriteria", "-dc:date");
  ASSERT_EQ(analyzeSearch(request), 0);
  EXPECT_EQ(search_.containerId, 1002);
  EXPECT_STREQ(search_.searchCriteria, "dc:title contains \"a\"");
  EXPECT_STREQ(search_.filter, "dc:title");
  EXPECT_EQ(search_.startingIndex, 1);
  EXPECT_EQ(search_.requestedCount, 0);
  EXPECT_STREQ(search_.sortCriteria, "-dc:date");

  EXPECT_EQ(dmsCdsReleaseReqArgsSearch(&search_), 0);
  expectSearchReset();
}

TEST_F(CdsRequestTest, SearchContainerBelowThousandMeansRoot) {
  struct Case {
    const char *containerId;
    int32_t expected;
  };
  // One lower than Browse's bound: 1000 is kept here.
  for (const Case &c : {Case{"999", 0}, Case{"1000", 1000}, Case{"-3", 0}, Case{"1001", 1001}}) {
    SCOPED_TRACE(c.containerId);
    SearchRequest request;
    request.containerId = element("ContainerID", c.containerId);
    ASSERT_EQ(analyzeSearch(request), 0);
    EXPECT_EQ(search_.containerId, c.expected);
    dmsCdsReleaseReqArgsSearch(&search_);
  }
}

TEST_F(CdsRequestTest, SearchHasNoObjectIdFallback) {
  SearchRequest request;
  request.containerId = element("ObjectID", "1500");
  EXPECT_EQ(analyzeSearch(request), DMS_ERR_NOT_FOUND);
  expectSearchReset();
}

TEST_F(CdsRequestTest, SearchMissingArgumentIsNotFoundAndFreesWhatWasRead) {
  for (int missing = 1; missing <= 5; ++missing) {
    SCOPED_TRACE(missing);
    SearchRequest request;
    std::string *fields[] = {&request.containerId,   &request.searchCriteria,
                             &request.filter,        &request.startingIndex,
                             &request.requestedCount, &request.sortCriteria};
    fields[missing]->clear();
    EXPECT_EQ(analyzeSearch(request), DMS_ERR_NOT_FOUND);
    expectSearchReset();
  }
}

TEST_F(CdsRequestTest, SearchCountsMustNotBeNegative) {
  SearchRequest request;
  request.requestedCount = element("RequestedCount", "-1");
  std::string out =
      captureStdout([&] { EXPECT_EQ(analyzeSearch(request), DMS_ERR_INVALID_BROWSE_FLAG); });
  EXPECT_NE(out.find("Extracted Search Request Argument value is not valid"), std::string::npos)
      << out;
  expectSearchReset();

  request = SearchRequest();
  request.startingIndex = element("StartingIndex", "-1");
  EXPECT_EQ(analyzeSearch(request), DMS_ERR_INVALID_BROWSE_FLAG);
  expectSearchReset();
}

// ---- NULL arguments and release --------------------------------------------

TEST_F(CdsRequestTest, NullArgumentsAreRefusedAndReleaseAcceptsNull) {
  ActionRequest action(kCdsId, "Browse", BrowseRequest().body().c_str());
  EXPECT_EQ(dmsCdsAnalyzeReqBrowse(nullptr, action.get(), &browse_), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsCdsAnalyzeReqBrowse(&handle_, nullptr, &browse_), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsCdsAnalyzeReqBrowse(&handle_, action.get(), nullptr), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsCdsAnalyzeReqSearch(nullptr, action.get(), &search_), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsCdsAnalyzeReqSearch(&handle_, nullptr, &search_), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsCdsAnalyzeReqSearch(&handle_, action.get(), nullptr), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsCdsReleaseReqArgsBrowse(nullptr), 0);
  EXPECT_EQ(dmsCdsReleaseReqArgsSearch(nullptr), 0);
  EXPECT_EQ(dmsCdsParseItemFilter(nullptr, nullptr), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dmsCdsParseContainerFilter(nullptr, nullptr), DMS_ERR_INVALID_PARAM);
}

TEST_F(CdsRequestTest, ReleaseTwiceIsHarmless) {
  ASSERT_EQ(analyzeBrowse(BrowseRequest()), 0);
  ASSERT_EQ(analyzeSearch(SearchRequest()), 0);
  EXPECT_EQ(dmsCdsReleaseReqArgsBrowse(&browse_), 0);
  EXPECT_EQ(dmsCdsReleaseReqArgsBrowse(&browse_), 0);
  EXPECT_EQ(dmsCdsReleaseReqArgsSearch(&search_), 0);
  EXPECT_EQ(dmsCdsReleaseReqArgsSearch(&search_), 0);
  expectBrowseReset();
  expectSearchReset();
}

// ---- item Filter -------------------------------------------------------------

namespace {

// The nine flags after parsing `filter` from "all left out".
std::vector<int> itemFlagsFor(const char *filter) {
  uint8_t flags[DMS_CDS_FILTER_COUNT];
  std::memset(flags, 1, sizeof(flags));
  std::string copy = filter;
  EXPECT_EQ(dmsCdsParseItemFilter(flags, copy.data()), 0);
  return std::vector<int>(flags, flags + DMS_CDS_FILTER_COUNT);
}

// Flags in order: res, size, album, resolution, date, duration, bitrate,
// creator, genre (0 = written).
std::vector<int> written(std::initializer_list<int> indexes) {
  std::vector<int> flags(DMS_CDS_FILTER_COUNT, 1);
  for (int index : indexes) flags[index] = 0;
  return flags;
}

}  // namespace

TEST(CdsItemFilter, EachTokenSwitchesOnItsProperties) {
  EXPECT_EQ(itemFlagsFor("dc:date"), written({DMS_CDS_FILTER_DATE}));
  EXPECT_EQ(itemFlagsFor("upnp:genre"), written({DMS_CDS_FILTER_GENRE}));
  EXPECT_EQ(itemFlagsFor("upnp:album"), written({DMS_CDS_FILTER_ALBUM}));
  EXPECT_EQ(itemFlagsFor("upnp:creator"), written({DMS_CDS_FILTER_CREATOR}));
  EXPECT_EQ(itemFlagsFor("res"), written({DMS_CDS_FILTER_RES}));
  EXPECT_EQ(itemFlagsFor("res@size"), written({DMS_CDS_FILTER_RES, DMS_CDS_FILTER_SIZE}));
  EXPECT_EQ(itemFlagsFor("res@duration"),
            written({DMS_CDS_FILTER_RES, DMS_CDS_FILTER_DURATION}));
  EXPECT_EQ(itemFlagsFor("res@resolution"),
            written({DMS_CDS_FILTER_RES, DMS_CDS_FILTER_RESOLUTION}));
  EXPECT_EQ(itemFlagsFor("res@bitrate"), written({DMS_CDS_FILTER_RES, DMS_CDS_FILTER_BITRATE}));
}

TEST(CdsItemFilter, TokensCombineAndUnknownOnesAreIgnored) {
  // res with its duration, but no size.
  EXPECT_EQ(itemFlagsFor("dc:title,res@duration"),
            written({DMS_CDS_FILTER_RES, DMS_CDS_FILTER_DURATION}));
  // protocolInfo alone does not switch res on.
  EXPECT_EQ(itemFlagsFor("res@protocolInfo"), written({}));
  // The DIDL-Lite creator is switched on by upnp:creator only.
  EXPECT_EQ(itemFlagsFor("dc:creator"), written({}));
  EXPECT_EQ(itemFlagsFor("dc:title,upnp:class,@id"), written({}));
  EXPECT_EQ(itemFlagsFor(""), written({}));
  EXPECT_EQ(itemFlagsFor(",,"), written({}));
  EXPECT_EQ(itemFlagsFor("upnp:creator,res@size,dc:date,res@bitrate"),
            written({DMS_CDS_FILTER_CREATOR, DMS_CDS_FILTER_RES, DMS_CDS_FILTER_SIZE,
                     DMS_CDS_FILTER_DATE, DMS_CDS_FILTER_BITRATE}));
}

TEST(CdsItemFilter, BlanksAreNotTrimmed) {
  // The second token is " upnp:album", which is unknown.
  EXPECT_EQ(itemFlagsFor("upnp:genre, upnp:album"), written({DMS_CDS_FILTER_GENRE}));
  EXPECT_EQ(itemFlagsFor("res "), written({}));
  // "contains" tests still see their text inside blanks.
  EXPECT_EQ(itemFlagsFor(" dc:date"), written({DMS_CDS_FILTER_DATE}));
  EXPECT_EQ(itemFlagsFor(" res@bitrate "), written({DMS_CDS_FILTER_RES, DMS_CDS_FILTER_BITRATE}));
}

TEST(CdsItemFilter, CaseMattersExceptForDateAndGenre) {
  EXPECT_EQ(itemFlagsFor("DC:Date"), written({DMS_CDS_FILTER_DATE}));
  EXPECT_EQ(itemFlagsFor("UPNP:GENRE"), written({DMS_CDS_FILTER_GENRE}));
  EXPECT_EQ(itemFlagsFor("UPNP:ALBUM"), written({}));
  EXPECT_EQ(itemFlagsFor("upnp:Creator"), written({}));
  EXPECT_EQ(itemFlagsFor("RES"), written({}));
  EXPECT_EQ(itemFlagsFor("res@Size"), written({}));
  EXPECT_EQ(itemFlagsFor("res@BITRATE"), written({}));
}

TEST(CdsItemFilter, FirstMatchingTestWins) {
  // Contains dc:date, so the res@resolution test is never tried.
  EXPECT_EQ(itemFlagsFor("dc:date@res@resolution"), written({DMS_CDS_FILTER_DATE}));
  // Equality tests want the whole token; the containment ones do not.
  EXPECT_EQ(itemFlagsFor("upnp:genres"), written({}));
  EXPECT_EQ(itemFlagsFor("x-res@resolution-y"),
            written({DMS_CDS_FILTER_RES, DMS_CDS_FILTER_RESOLUTION}));
}

TEST(CdsItemFilter, ParserOnlyClearsFlags) {
  uint8_t flags[DMS_CDS_FILTER_COUNT] = {0};
  std::string copy = "dc:title";
  EXPECT_EQ(dmsCdsParseItemFilter(flags, copy.data()), 0);
  for (uint8_t flag : flags) EXPECT_EQ(flag, 0);
}

// ---- container Filter ----------------------------------------------------------

namespace {

dlnaUtilDidlContainer containerAfter(const char *filter) {
  dlnaUtilDidlContainer container{};
  container.childCount = -1;
  container.searchable = static_cast<uint32_t>(-1);
  std::string copy = filter;
  EXPECT_EQ(dmsCdsParseContainerFilter(&container, copy.data()), 0);
  return container;
}

}  // namespace

TEST(CdsContainerFilter, ChildCountAndSearchStateAreAskedFor) {
  dlnaUtilDidlContainer container = containerAfter("@childCount");
  EXPECT_EQ(container.childCount, 0);
  EXPECT_EQ(container.searchable, static_cast<uint32_t>(-1));

  container = containerAfter("@searchState");
  EXPECT_EQ(container.childCount, -1);
  EXPECT_EQ(container.searchable, 0u);

  container = containerAfter("dc:title,container@childCount,container@searchState");
  EXPECT_EQ(container.childCount, 0);
  EXPECT_EQ(container.searchable, 0u);
}

TEST(CdsContainerFilter, OtherTokensLeaveTheContainerAlone) {
  for (const char *filter : {"", "dc:title", "@searchable", "childCount", "res@size,upnp:class"}) {
    SCOPED_TRACE(filter);
    dlnaUtilDidlContainer container = containerAfter(filter);
    EXPECT_EQ(container.childCount, -1);
    EXPECT_EQ(container.searchable, static_cast<uint32_t>(-1));
  }
}

TEST(CdsContainerFilter, TokensAreMatchedIgnoringCaseAndOneTestPerToken) {
  EXPECT_EQ(containerAfter(" @CHILDCOUNT ").childCount, 0);
  EXPECT_EQ(containerAfter("@SearchState").searchable, 0u);
  // One token holding both: the child count test comes first and wins.
  dlnaUtilDidlContainer container = containerAfter("@childCount@searchState");
  EXPECT_EQ(container.childCount, 0);
  EXPECT_EQ(container.searchable, static_cast<uint32_t>(-1));
}
