// The predicate language: reading, writing back, evaluating, and the search field's language.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "smart/Predicate.h"
#include "smart/PredicateEvaluator.h"
#include "smart/QKSmartStreamExpression.h"
#include "smart/SqlCompiler.h"
#include "smart/TextMatching.h"

#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

namespace lectern::test {
namespace {

using ::testing::HasSubstr;

// A flat object: key paths map straight to values.
class MapObject final : public PredicateObject {
 public:
  MapObject(std::initializer_list<std::pair<const std::string, Value>> values, double id = 1)
      : values_(values), id_(id) {}
  Value valueForKeyPath(std::string_view keyPath) const override {
    auto found = values_.find(std::string(keyPath));
    return found == values_.end() ? Value() : found->second;
  }
  Value self() const override { return id_; }

 private:
  std::map<std::string, Value> values_;
  double id_;
};

Predicate parsed(std::string_view text, const PredicateArguments& arguments = {}) {
  auto predicate = parsePredicate(text, arguments);
  EXPECT_TRUE(predicate) << text << ": " << (predicate ? "" : predicate.error().message());
  return predicate ? *predicate : Predicate{};
}

bool matches(std::string_view text, const MapObject& object, double now = 0) {
  return evaluatePredicate(parsed(text), object, EvaluationContext{now});
}

TEST(PredicateParsing, PrecedenceAndParenthesesBuildTheExpectedTree) {
  const Predicate p = parsed("a == 1 OR b == 2 AND NOT c == 3");
  ASSERT_EQ(p.kind, Predicate::Kind::kOr);
  ASSERT_EQ(p.subpredicates.size(), 2u);
  EXPECT_EQ(p.subpredicates[1].kind, Predicate::Kind::kAnd);
  EXPECT_EQ(p.subpredicates[1].subpredicates[1].kind, Predicate::Kind::kNot);

  const Predicate grouped = parsed("(a == 1 OR b == 2) AND c == 3");
  ASSERT_EQ(grouped.kind, Predicate::Kind::kAnd);
  EXPECT_EQ(grouped.subpredicates[0].kind, Predicate::Kind::kOr);
}

TEST(PredicateParsing, OperatorsOptionsModifiersAndArgumentsAreRead) {
  const Predicate p = parsed("ANY %K CONTAINS[cd] %@", {"folders.title", "News"});
  EXPECT_EQ(p.modifier, ComparisonModifier::kAny);
  EXPECT_EQ(p.left, Expression::ofKeyPath("folders.title"));
  EXPECT_EQ(p.op, ComparisonOperator::kContains);
  EXPECT_EQ(p.options, (ComparisonOptions{true, true}));
  EXPECT_EQ(p.right, Expression::ofConstant("News"));

  EXPECT_EQ(parsed("title BEGINSWITH[c] 'x'").options, (ComparisonOptions{true, false}));
  EXPECT_EQ(parsed("title ENDSWITH[d] 'x'").options, (ComparisonOptions{false, true}));
  EXPECT_EQ(parsed("ALL tokens.title LIKE '*a?'").modifier, ComparisonModifier::kAll);
  EXPECT_EQ(parsed("progress BETWEEN {0.25, 0.5}").op, ComparisonOperator::kBetween);
  const Predicate self = parsed("SELF IN %@", PredicateArguments{Value(std::vector<Value>{1, 2, 3})});
  EXPECT_EQ(self.left.kind, Expression::Kind::kSelf);
  EXPECT_EQ(self.right, Expression::ofConstant(std::vector<Value>{1, 2, 3}));
  // The argument is a value, never syntax.
  EXPECT_EQ(parsed("title == %@", {"a\" OR 1 == 1"}).right, Expression::ofConstant("a\" OR 1 == 1"));
}

TEST(PredicateParsing, UnreadableTextIsAnErrorNamingThePosition) {
  struct Case {
    std::string text;
    std::string position;
  };
  const Case cases[] = {
      {"title CONTAIN 'x'", "7"},       // misspelt operator
      {"title == 'x' AND", "17"},       // nothing after AND
      {"(title == 'x'", "14"},          // unclosed group
      {"title == \"open", "10"},        // unclosed quote
      {"title ==[q] 'x'", "10"},        // unknown option
      {"title == %@", "10"},            // missing argument
      {"AND == 1", "1"},                // keyword as key path
      {"progress BETWEEN {1}", "10"},   // BETWEEN needs two
      {"title == 'x' garbage", "14"},
  };
  for (const auto& c : cases) {
    auto result = parsePredicate(c.text);
    ASSERT_FALSE(result) << c.text;
    EXPECT_EQ(result.error().info("position"), c.position) << c.text << ": " << result.error().description;
    EXPECT_THAT(result.error().description, HasSubstr("at character " + c.position));
  }
  // Positions count characters, not bytes.
  auto accented = parsePredicate("title == 'é' ??");
  ASSERT_FALSE(accented);
  EXPECT_EQ(accented.error().info("position"), "14");
}

TEST(PredicateFormatting, TheTextParsesBackToTheSamePredicate) {
  const std::string texts[] = {
      "title CONTAINS[cd] \"caf\\\"é\" AND (is_archived == 0 OR is_favorited == YES)",
      "NOT (ANY folders.folder_id CONTAINS \"unread\") OR ALL tokens.title BEGINSWITH[d] \"x\"",
      "date_added > CAST(CAST(now(), \"NSNumber\") - 1209600, \"NSDate\")",
      "date_added BETWEEN {CAST(1700000000.5, \"NSDate\"), CAST(1800000000, \"NSDate\")}",
      "SELF IN {1, 2, 3} AND folders.@count >= 2 AND progress < 0.125",
      "(a == 1 AND b == 2) AND c == nil",
      "#and == \"keyword as key path\" OR title LIKE[c] \"*x?\"",
      "TRUEPREDICATE AND NOT (FALSEPREDICATE)",
      "score <= -3 AND tags IN {\"a\", \"b\"}",
  };
  for (const auto& text : texts) {
    const Predicate first = parsed(text);
    const std::string written = formatPredicate(first);
    auto again = parsePredicate(written);
    ASSERT_TRUE(again) << written << ": " << again.error().message();
    EXPECT_EQ(*again, first) << text << " -> " << written;
    EXPECT_EQ(formatPredicate(*again), written);
  }
}

// The whole text through ICU at once: what folding by runs must give.
std::string foldedWholeByICU(std::string_view text, ComparisonOptions options) {
  icu::UnicodeString value = icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
  UErrorCode status = U_ZERO_ERROR;
  if (options.diacriticInsensitive) {
    icu::UnicodeString decomposed = icu::Normalizer2::getNFDInstance(status)->normalize(value, status);
    icu::UnicodeString stripped;
    for (int32_t i = 0; i < decomposed.length(); i += U16_LENGTH(decomposed.char32At(i))) {
      if (u_charType(decomposed.char32At(i)) != U_NON_SPACING_MARK) stripped.append(decomposed.char32At(i));
    }
    value = stripped;
  }
  if (options.caseInsensitive) value.foldCase();
  value = icu::Normalizer2::getNFCInstance(status)->normalize(value, status);
  std::string out;
  value.toUTF8String(out);
  return out;
}

TEST(TextMatching, FoldingByRunsEqualsFoldingTheWholeText) {
  // Combining marks after ASCII letters, letters that fold to ASCII or to several letters, final
  // sigma, CJK, emoji, invalid and cut-off UTF-8 between ASCII runs.
  const std::string texts[] = {
      "Cafe\u0301 CRE\u0300ME", "E\u0301cole e\u0301te\u0301", "\u212Aelvin 5\u212A", "\u0130stanbul I\u0307",
      "\uFB01nance \uFB00", "\u03A3\u0391\u03A3 \u03C3\u03C2", "\u6771\u4EAC News \u00C5ngstr\u00F6m",
      "x\U0001F600y Z", "bad \xff byte \xc3 cut", "\u01C4 \u1E9E STRASSE", "plain ASCII only", "", "\u00e9",
      "a\u0308\u0301b", "A\xcc"};
  for (const ComparisonOptions options : {ComparisonOptions{true, true}, ComparisonOptions{true, false},
                                          ComparisonOptions{false, true}}) {
    for (const auto& text : texts) EXPECT_EQ(foldText(text, options), foldedWholeByICU(text, options)) << text;
  }
}

TEST(TextMatching, OptionsFoldCaseAndDiacritics) {
  EXPECT_EQ(foldText("Café CRÈME Straße", {true, true}), "cafe creme strasse");
  EXPECT_EQ(foldText("Café", {false, true}), "Cafe");
  EXPECT_EQ(foldText("Café", {true, false}), "café");
  EXPECT_TRUE(compareText(ComparisonOperator::kContains, {true, true}, "Le Café", "CAFE"));
  EXPECT_FALSE(compareText(ComparisonOperator::kContains, {true, false}, "Le Café", "CAFE"));
  EXPECT_FALSE(compareText(ComparisonOperator::kContains, {}, "Le Café", "cafe"));
  EXPECT_TRUE(compareText(ComparisonOperator::kLike, {true, true}, "Ünïcode text", "unicode*T?xt"));
  EXPECT_FALSE(compareText(ComparisonOperator::kLike, {}, "abc", "a?"));
  EXPECT_TRUE(compareText(ComparisonOperator::kLike, {}, "abc", "*"));
  EXPECT_TRUE(compareText(ComparisonOperator::kBeginsWith, {true, false}, "ÉCOLE", "éc"));
}

TEST(TextMatching, MatchesAreFoundForHighlightingInTheOriginalBytes) {
  const std::string text = "Le CAFÉ, le café et la cafétéria";
  const auto ranges = findMatches(text, {"cafe", "LE "});
  std::vector<std::string> found;
  for (const auto& range : ranges) found.push_back(text.substr(range.begin, range.end - range.begin));
  // "le " and "café" touch in "le café" and merge; "cafétéria" holds "cafe" too.
  EXPECT_EQ(found, (std::vector<std::string>{"Le CAFÉ", "le café", "café"}));
  EXPECT_TRUE(findMatches(text, {"thé"}).empty());
  EXPECT_TRUE(findMatches(text, {""}).empty());
}

TEST(PredicateEvaluation, NilListsAndMismatchedTypesHaveOneAnswerEach) {
  const MapObject story({{"title", "Été à Paris"},
                         {"progress", 0.5},
                         {"is_archived", false},
                         {"date_added", DateValue{1000}},
                         {"folders.title", std::vector<Value>{"News", "Tech"}},
                         {"tokens.title", std::vector<Value>{}},
                         {"folders", std::vector<Value>{"News", "Tech"}},
                         {"tokens", std::vector<Value>{}}},
                        42);
  EXPECT_TRUE(matches("title CONTAINS[cd] 'ete a'", story));
  EXPECT_FALSE(matches("title CONTAINS 'ete a'", story));
  EXPECT_TRUE(matches("author == nil AND author != 'x'", story));
  EXPECT_FALSE(matches("author CONTAINS 'x' OR author < 'x'", story));
  EXPECT_FALSE(matches("title == 5", story));  // text against a number
  EXPECT_TRUE(matches("title != 5", story));
  EXPECT_TRUE(matches("is_archived == NO AND is_archived == 0", story));
  EXPECT_TRUE(matches("progress BETWEEN {0.5, 1} AND progress IN {0.1, 0.5}", story));
  EXPECT_TRUE(matches("ANY folders.title ==[c] 'tech' AND folders.title == 'News'", story));
  EXPECT_FALSE(matches("ALL folders.title == 'News'", story));
  EXPECT_TRUE(matches("ALL tokens.title == 'anything'", story));  // nothing to disprove
  EXPECT_FALSE(matches("ANY tokens.title == 'anything'", story));
  EXPECT_TRUE(matches("folders.@count == 2 AND tokens.@count == 0", story));
  EXPECT_TRUE(matches("SELF IN {41, 42}", story));
  EXPECT_TRUE(matches("date_added > CAST(500, 'NSDate') AND date_added < CAST(1500, \"NSDate\")", story));
}

TEST(PredicateEvaluation, DateFunctionsUseTheTimeOfEvaluation) {
  const MapObject story({{"date_added", DateValue{10 * 86400}}});
  const std::string lastTwoDays = "date_added > CAST(CAST(now(), \"NSNumber\") - 172800, \"NSDate\")";
  EXPECT_TRUE(matches(lastTwoDays, story, 11 * 86400));
  EXPECT_FALSE(matches(lastTwoDays, story, 13 * 86400));
}

TEST(SqlCompiling, TextSearchesGoToTheIndexOnlyWhenItCanAnswer) {
  auto compiled = [](std::string_view text, bool index = true) {
    auto query = compileToSql(parsed(text), SqlCompileOptions{0, index});
    EXPECT_TRUE(query) << text;
    return query ? *query : CompiledQuery{};
  };
  EXPECT_TRUE(compiled("title CONTAINS[cd] 'café'").usesSearchIndex);
  // The match first; the stories awaiting the index are compared one by one (the term again).
  EXPECT_EQ(compiled("title CONTAINS[cd] 'café'").arguments, (std::vector<Value>{"({title} : \"cafe\")", "café"}));
  EXPECT_THAT(compiled("title CONTAINS[cd] 'café'").where, HasSubstr("StorySearchPending"));
  EXPECT_FALSE(compiled("title CONTAINS[cd] 'ab'").usesSearchIndex);  // too short for trigrams
  EXPECT_FALSE(compiled("title CONTAINS[cd] 'café'", false).usesSearchIndex);
  EXPECT_FALSE(compiled("url CONTAINS[cd] 'café'").usesSearchIndex);
  // The exact comparison still decides when the index only narrows.
  const CompiledQuery sensitive = compiled("content.preview_text CONTAINS 'Café'");
  EXPECT_TRUE(sensitive.usesSearchIndex);
  EXPECT_THAT(sensitive.where, HasSubstr("lectern_compare"));
  // Alternatives under OR become one index query.
  const CompiledQuery alternatives =
      compiled("title CONTAINS[cd] 'one' OR content.preview_text CONTAINS[cd] 'two' OR title CONTAINS[cd] 'three'");
  EXPECT_EQ(alternatives.arguments,
            (std::vector<Value>{"({title} : \"one\") OR ({preview_text} : \"two\") OR ({title} : \"three\")", "one", "two",
                                "three"}));
  // A phrase's own quotes are doubled, so the term stays one phrase.
  EXPECT_EQ(compiled("title CONTAINS[cd] 'say \"hi\"'").arguments.front(), Value("({title} : \"say \"\"hi\"\"\")"));
}

TEST(SqlCompiling, PredicatesItCannotExpressAreErrorsNotGuesses) {
  EXPECT_FALSE(compileToSql(parsed("title == url"), {}));
  EXPECT_FALSE(compileToSql(parsed("nosuchpath == 1"), {}));
  EXPECT_FALSE(validateKeyPaths(parsed("nosuchpath == 1")));
  EXPECT_TRUE(validateKeyPaths(parsed("content.preview_text CONTAINS 'x' AND folders.@count > 1")));
}

TEST(QKSmartStreamExpression, WordsPhrasesAndOperatorsBecomeTermClauses) {
  QKSmartStreamExpression search("apple \"pear tart\" or plum");
  EXPECT_EQ(search.predicateFormat(),
            "(title CONTAINS[cd] %@ OR content.preview_text CONTAINS[cd] %@) "
            "OR (title CONTAINS[cd] %@ OR content.preview_text CONTAINS[cd] %@) "
            "OR (title CONTAINS[cd] %@ OR content.preview_text CONTAINS[cd] %@) ");
  EXPECT_EQ(search.arguments(), (PredicateArguments{"apple", "apple", "pear tart", "pear tart", "plum", "plum"}));
  EXPECT_EQ(search.terms(), (std::vector<std::string>{"apple", "pear tart", "plum"}));
  auto predicate = search.predicate();
  ASSERT_TRUE(predicate) << predicate.error().message();
  ASSERT_EQ(predicate->kind, Predicate::Kind::kOr);
  ASSERT_EQ(predicate->subpredicates.size(), 3u);
  EXPECT_EQ(predicate->subpredicates[1].subpredicates[0].right, Expression::ofConstant("pear tart"));

  const MapObject tart({{"title", "A Pear Tart recipe"}});
  const MapObject pear({{"title", "pear and tart"}});
  EXPECT_TRUE(evaluatePredicate(*predicate, tart, {}));
  EXPECT_FALSE(evaluatePredicate(*predicate, pear, {}));
}

TEST(QKSmartStreamExpression, OperatorsAndGroupsCombineTermsAndSyntaxInTermsStaysText) {
  auto predicate = QKSmartStreamExpression("(apple OR pear) and not tart").predicate();
  ASSERT_TRUE(predicate) << predicate.error().message();
  const MapObject a({{"title", "apple pie"}});
  const MapObject b({{"title", "apple tart"}});
  const MapObject c({{"content.preview_text", "PEAR"}});
  EXPECT_TRUE(evaluatePredicate(*predicate, a, {}));
  EXPECT_FALSE(evaluatePredicate(*predicate, b, {}));
  EXPECT_TRUE(evaluatePredicate(*predicate, c, {}));

  auto quoted = QKSmartStreamExpression("\"a == 'b'\"").predicate();
  ASSERT_TRUE(quoted);
  EXPECT_TRUE(evaluatePredicate(*quoted, MapObject({{"title", "x a == 'b' y"}}), {}));

  EXPECT_EQ(QKSmartStreamExpression::unquotedStringFromTerm("\"two words\""), "two words");
  EXPECT_EQ(QKSmartStreamExpression::unquotedStringFromTerm("plain"), "plain");
  EXPECT_FALSE(QKSmartStreamExpression("apple AND").predicate());
  EXPECT_FALSE(QKSmartStreamExpression("   ").predicate());
}

}  // namespace
}  // namespace lectern::test
