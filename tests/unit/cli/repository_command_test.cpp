#include "cli/repository_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "host/base/json_parse.h"
#include "host/store/lmdb_store.h"
#include "json/readers.h"
#include "tests/support/require.h"
#include "tests/support/temp_dir.h"

namespace vexa::cli {
namespace {

using ::testing::HasSubstr;

constexpr char kHost[] = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";
constexpr char kId[] = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6";

class RepositoryCommandTest : public ::testing::Test {
 protected:
  RepositoryCommandTest() {
    store::LmdbOptions options;
    options.directory = folder_.File("store");
    store_ = test::Require(store::OpenLmdbStore(options));
  }
  ErrorCode Refused(const NewRepository& repository) {
    const Status added = AddRepository(repository, *store_, out_);
    EXPECT_FALSE(added) << repository.name;
    return added ? ErrorCode::kInternal : added.error().code();
  }

  test::TempDir folder_;
  std::shared_ptr<store::Store> store_;
  std::ostringstream out_;
};

TEST_F(RepositoryCommandTest, Add_WritesARecordThatListShows) {
  ASSERT_TRUE(AddRepository({"pool 1", kId, kHost}, *store_, out_));
  EXPECT_EQ(out_.str(), std::string(kId) + "\n");
  std::ostringstream lines;
  ASSERT_TRUE(ListRepositories(*store_, RepositoryForm::kLines, lines));
  EXPECT_EQ(lines.str(), std::string(kId) + "  " + kHost + "  repo_online  pool 1\n");
  std::ostringstream text;
  ASSERT_TRUE(ListRepositories(*store_, RepositoryForm::kJson, text));
  const auto list = ParseJson(text.str());
  ASSERT_TRUE(list && list->size() == 1);
  EXPECT_EQ((*list)[0]["repository_id"], Json::Value(kId));
  EXPECT_EQ((*list)[0]["name"], Json::Value("pool 1"));
}

TEST_F(RepositoryCommandTest, Add_WithoutAnId_MakesOne) {
  ASSERT_TRUE(AddRepository({"a", "", kHost}, *store_, out_));
  ASSERT_TRUE(AddRepository({"b", "", kHost}, *store_, out_));
  EXPECT_EQ(out_.str().size(), 2 * 37u);
}

TEST_F(RepositoryCommandTest, Add_OfWhatIsThere_IsAConflict) {
  ASSERT_TRUE(AddRepository({"pool", kId, kHost}, *store_, out_));
  EXPECT_EQ(Refused({"other", kId, kHost}), ErrorCode::kConflict);
  EXPECT_EQ(Refused({"pool", "", kHost}), ErrorCode::kConflict);
}

TEST_F(RepositoryCommandTest, Add_OfWordsThatCannotBe_IsInvalid) {
  for (const std::string& name : {std::string(), std::string(129, 'x'), std::string("a\nb"), std::string("a\0b", 3),
                                  std::string("\xFF"), std::string("\x7F")}) {
    EXPECT_EQ(Refused({name, kId, kHost}), ErrorCode::kInvalid);
  }
  EXPECT_EQ(Refused({"pool", "../x", kHost}), ErrorCode::kInvalid);
  EXPECT_EQ(Refused({"pool", kId, "nas-1"}), ErrorCode::kInvalid);
  EXPECT_EQ(Refused({"pool", kId, ""}), ErrorCode::kInvalid);
  EXPECT_EQ(out_.str(), "");
}

constexpr char kStorage[] = "/dash/repository/3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6/storage";
constexpr char kState[] = "/dash/repository/3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6/state";

class UnavailableRepositoryTest : public RepositoryCommandTest {
 protected:
  UnavailableRepositoryTest() {
    test::Require(AddRepository({"pool", kId, kHost}, *store_, out_));
    (void)test::Require(
        store_->Commit({{},
                        {{kStorage, R"({"host_id":"h","folders":{"/srv/":"ino=2 fsid=1"},"not_mounted":["/srv/"],)"
                                    R"("reason":"why","since":1700000000})"},
                         {kState, "\"repo_unavailable\""}}}));
    out_.str("");
  }
  bool Has(const char* key) { return test::Require(test::Require(store_->Read())->Get(key)).has_value(); }
};

TEST_F(UnavailableRepositoryTest, List_ShowsTheLiveStateAndWhatIsNotMounted) {
  std::ostringstream lines;
  ASSERT_TRUE(ListRepositories(*store_, RepositoryForm::kLines, lines));
  EXPECT_EQ(lines.str(), std::string(kId) + "  " + kHost + "  repo_unavailable  pool\n");
  std::ostringstream text;
  ASSERT_TRUE(ListRepositories(*store_, RepositoryForm::kJson, text));
  const auto list = ParseJson(text.str());
  ASSERT_TRUE(list && list->size() == 1);
  EXPECT_EQ((*list)[0]["state"], Json::Value("repo_unavailable"));
  EXPECT_EQ(VexaVirtualization::json::ToText((*list)[0]["storage"]),
            R"({"folders":{"/srv/":"ino=2 fsid=1"},"not_mounted":["/srv/"],"reason":"why","since":1700000000,)"
            R"("trouble":"repo_unavailable"})");
}

TEST_F(UnavailableRepositoryTest, Accept_ForgetsTheStorageAndItsState) {
  for (const char* word : {kId, "pool"}) {
    (void)test::Require(store_->Commit({{}, {{kState, "\"repo_unavailable\""}}}));
    ASSERT_TRUE(AcceptStorage(word, *store_, out_));
  }
  EXPECT_FALSE(Has(kStorage));
  EXPECT_TRUE(Has(kState)) << "written by somebody else the second time";
  EXPECT_THAT(out_.str(), HasSubstr(kId));
}

TEST_F(UnavailableRepositoryTest, Accept_OfADamagedRecord_RemovesIt) {
  (void)test::Require(store_->Commit({{}, {{kStorage, "[]"}}}));
  std::ostringstream text;
  ASSERT_TRUE(ListRepositories(*store_, RepositoryForm::kJson, text));
  EXPECT_THAT(text.str(), HasSubstr("reason"));
  ASSERT_TRUE(AcceptStorage(kId, *store_, out_));
  EXPECT_FALSE(Has(kStorage));
}

TEST_F(UnavailableRepositoryTest, Accept_OfAnUnknownOrAmbiguousName_ChangesNothing) {
  const Status unknown = AcceptStorage("poo", *store_, out_);
  ASSERT_FALSE(unknown);
  EXPECT_EQ(unknown.error().code(), ErrorCode::kNotFound);
  (void)test::Require(store_->Commit({{}, {{"/dash/repository/x/object", R"({"name":"pool"})"}}}));
  const Status ambiguous = AcceptStorage("pool", *store_, out_);
  ASSERT_FALSE(ambiguous);
  EXPECT_EQ(ambiguous.error().code(), ErrorCode::kConflict);
  EXPECT_TRUE(Has(kStorage));
  EXPECT_TRUE(Has(kState));
}

TEST_F(RepositoryCommandTest, List_ShowsNothingThatDrivesATerminal) {
  (void)test::Require(store_->Commit({{}, {{"/dash/repository/x/object", R"({"name":"\u001b[2J"})"}}}));
  (void)test::Require(store_->Commit({{}, {{"/dash/repository/y/object", "[]"}}}));
  std::ostringstream lines;
  ASSERT_TRUE(ListRepositories(*store_, RepositoryForm::kLines, lines));
  EXPECT_EQ(lines.str().find('\x1b'), std::string::npos);
  EXPECT_THAT(lines.str(), HasSubstr("x"));
}

}  // namespace
}  // namespace vexa::cli
