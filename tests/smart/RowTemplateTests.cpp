// The smart-folder rows: the predicates they produce, recognising them again, date units.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "smart/PredicateEvaluator.h"
#include "smart/RowTemplates.h"

namespace lectern::test {
namespace {

class TagsObject final : public PredicateObject {
 public:
  explicit TagsObject(std::optional<std::string> tags) : tags_(std::move(tags)) {}
  Value valueForKeyPath(std::string_view keyPath) const override {
    return keyPath == "tags" && tags_ ? Value(*tags_) : Value();
  }
  Value self() const override { return 1; }

 private:
  std::optional<std::string> tags_;
};

TEST(DateUnits, IntervalsAreShownInTheLargestUnitThatDividesThem) {
  EXPECT_EQ(getBaseUnitFromTimeInterval(14 * 86400.0), (DateInterval{2, 1}));    // 2 weeks
  EXPECT_EQ(getBaseUnitFromTimeInterval(30 * 86400.0), (DateInterval{1, 2}));    // 1 month
  EXPECT_EQ(getBaseUnitFromTimeInterval(360 * 86400.0), (DateInterval{1, 3}));   // 1 year
  EXPECT_EQ(getBaseUnitFromTimeInterval(365 * 86400.0), (DateInterval{365, 0})); // 365 days
  EXPECT_EQ(getBaseUnitFromTimeInterval(3 * 86400.0), (DateInterval{3, 0}));
  EXPECT_EQ(getBaseUnitFromTimeInterval(60 * 86400.0), (DateInterval{2, 2}));
  EXPECT_EQ(getBaseUnitFromTimeInterval(720 * 86400.0), (DateInterval{2, 3}));
}

TEST(DateUnits, TimeIntervalsFromABaseAndAUnitAndTheirRaisedTexts) {
  EXPECT_EQ(timeIntervalFromBase(2, 0), 172800);
  EXPECT_EQ(timeIntervalFromBase(1, 1), 604800);
  EXPECT_EQ(timeIntervalFromBase(1, 2), 2592000);
  EXPECT_EQ(timeIntervalFromBase(1, 3), 31104000);
  try {
    timeIntervalFromBase(1, 4);
    FAIL() << "an index of 4 was accepted";
  } catch (const InternalInconsistency& e) {
    EXPECT_STREQ(e.what(), "unitIndex beyond max allowed bounds (4)");
  }
  try {
    timeIntervalFromBase(std::nullopt, 1);
    FAIL() << "a missing base was accepted";
  } catch (const InternalInconsistency& e) {
    EXPECT_STREQ(e.what(), "base and unit cannot be nil");
  }
  EXPECT_THROW(timeIntervalFromBase(1, std::nullopt), InternalInconsistency);
}

TEST(RowTemplates, DateRowsComputeTheirStartAtEvaluationAndAreRecognised) {
  const QKDateIntervalRowTemplate row{"date_added", true, {2, 1}};
  const Predicate p = row.predicateWithSubpredicates();
  EXPECT_EQ(formatPredicate(p), "date_added > CAST(CAST(now(), \"NSNumber\") - 1209600, \"NSDate\")");
  EXPECT_EQ(QKDateIntervalRowTemplate::matchForPredicate(p), row);
  EXPECT_TRUE(hasDatePredicate(Predicate::andOf({p, parsePredicate("is_archived == 0").value()})));
  EXPECT_FALSE(hasDatePredicate(parsePredicate("date_added > CAST(5, \"NSDate\")").value()));

  const QKDateIntervalRowTemplate before{"date_updated", false, {365, 0}};
  const Predicate notInLast = before.predicateWithSubpredicates();
  EXPECT_EQ(notInLast.op, ComparisonOperator::kLess);
  EXPECT_EQ(QKDateIntervalRowTemplate::matchForPredicate(notInLast), before);
  EXPECT_EQ(rowTextFromPredicate(parsePredicate(formatPredicate(notInLast)).value()),
            "date_updated not-in-last 365 days");
}

TEST(RowTemplates, ATagMatchesOnlyAsAWholeElementOfTheList) {
  const Predicate has = QKTagsRowTemplate{"tags", true, "art"}.predicateWithSubpredicates();
  EXPECT_EQ(formatPredicate(has),
            "tags BEGINSWITH[cd] \"art,\" OR tags ENDSWITH[cd] \",art\" OR tags CONTAINS[cd] \",art,\" OR "
            "tags ==[cd] \"art\"");
  auto matches = [&](const Predicate& p, std::optional<std::string> tags) {
    return evaluatePredicate(p, TagsObject(std::move(tags)), {});
  };
  EXPECT_FALSE(matches(has, "party,smart"));
  EXPECT_TRUE(matches(has, "art"));
  EXPECT_TRUE(matches(has, "art,x"));
  EXPECT_TRUE(matches(has, "x,art,y"));
  EXPECT_TRUE(matches(has, "x,ART"));
  EXPECT_FALSE(matches(has, "artist,x"));
  EXPECT_FALSE(matches(has, std::nullopt));

  const Predicate lacks = QKTagsRowTemplate{"tags", false, "art"}.predicateWithSubpredicates();
  EXPECT_EQ(lacks.kind, Predicate::Kind::kNot);
  EXPECT_TRUE(matches(lacks, "party,smart"));
  EXPECT_FALSE(matches(lacks, "x,art,y"));
  EXPECT_EQ(QKTagsRowTemplate::matchForPredicate(lacks), (QKTagsRowTemplate{"tags", false, "art"}));
  EXPECT_EQ(rowTextFromPredicate(has), "tags contains art");
}

TEST(RowTemplates, FolderTypeBooleanAndTextRowsRoundTripThroughRowWords) {
  const std::string rows[] = {
      "type is video",          "type is-not unread",           "is_favorited is yes",
      "is_archived is no",      "title contains Café au lait",  "content.preview_text does-not-contain x",
      "url begins-with https",  "folders.title is News",        "folders.title is-not Old stuff",
      "date_added in-last 1 day", "date_added in-last 3 months", "author like J*n",
  };
  for (const auto& row : rows) {
    auto predicate = predicateFromRowText(row);
    ASSERT_TRUE(predicate) << row << ": " << predicate.error().message();
    // Through the stored text and back to the same words.
    auto stored = parsePredicate(formatPredicate(*predicate));
    ASSERT_TRUE(stored) << row;
    EXPECT_EQ(rowTextFromPredicate(*stored), row);
  }
  EXPECT_EQ(formatPredicate(predicateFromRowText("type is-not unread").value()),
            "NOT (folders.folder_id == \"unread\")");
  EXPECT_EQ(formatPredicate(predicateFromRowText("is_favorited is yes").value()), "is_favorited == YES");
  EXPECT_EQ(formatPredicate(predicateFromRowText("title does-not-contain a b").value()),
            "NOT (title CONTAINS[cd] \"a b\")");
  // The stored forms of the default folders read as rows too.
  EXPECT_EQ(rowTextFromPredicate(parsePredicate("is_archived == 0").value()), "is_archived is no");
}

TEST(RowTemplates, RowWordsThatDoNotReadAreErrorsWithAHint) {
  for (const std::string row : {"date_added in-last two weeks", "date_added in-last 2 fortnights",
                                "title in-last 2 days", "type is folder", "is_favorited is maybe",
                                "nosuch contains x", "title resembles x", "title contains"}) {
    auto predicate = predicateFromRowText(row);
    ASSERT_FALSE(predicate) << row;
    EXPECT_THAT(predicate.error().description, ::testing::HasSubstr(row));
  }
}

TEST(RowTemplates, OldFolderPredicatesAreConvertedToTheCurrentForm) {
  const Predicate old = parsePredicate("folder ==[cd] \"News\"").value();
  EXPECT_TRUE(QKFolderNameRowTemplate::isMatchingWithOldFolderNamePredicate(old));
  EXPECT_EQ(formatPredicate(QKFolderNameRowTemplate::predicateFromOldFolderPredicate(old)),
            "folders.title ==[cd] \"News\"");
  EXPECT_EQ(QKFolderNameRowTemplate::matchForPredicate(old),
            (QKFolderNameRowTemplate{QKContainsTextRowTemplate::Operator::kIs, "News"}));
  EXPECT_FALSE(QKFolderNameRowTemplate::isMatchingWithOldFolderNamePredicate(
      parsePredicate("folders.title == \"x\"").value()));
  const Predicate nested = parsePredicate("is_archived == 0 AND NOT (folder_id == \"unread\")").value();
  EXPECT_EQ(formatPredicate(convertOldFolderPredicates(nested)),
            "is_archived == 0 AND NOT (folders.folder_id == \"unread\")");
}

TEST(RowTemplates, RowSetsReadBackAllOrAny) {
  const Predicate all = Predicate::andOf({predicateFromRowText("tags contains art").value(),
                                          predicateFromRowText("is_favorited is yes").value()});
  auto rows = rowsFromPredicate(parsePredicate(formatPredicate(all)).value());
  ASSERT_TRUE(rows);
  EXPECT_FALSE(rows->any);
  EXPECT_EQ(rows->rows, (std::vector<std::string>{"tags contains art", "is_favorited is yes"}));
  const Predicate any = Predicate::orOf({predicateFromRowText("type is video").value(),
                                         predicateFromRowText("type is image").value()});
  rows = rowsFromPredicate(parsePredicate(formatPredicate(any)).value());
  ASSERT_TRUE(rows);
  EXPECT_TRUE(rows->any);
  EXPECT_FALSE(rowsFromPredicate(parsePredicate("title == url").value()));
}

}  // namespace
}  // namespace lectern::test
