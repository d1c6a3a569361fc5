# The predicate engine (a leaf: text and values in, predicates, answers and SQL text out).
set(LECTERN_SEARCH_SOURCES
  src/smart/Predicate.cpp
  src/smart/PredicateParser.cpp
  src/smart/PredicateEvaluator.cpp
  src/smart/TextMatching.cpp
  src/smart/SqlCompiler.cpp
  src/smart/QKSmartStreamExpression.cpp
  src/smart/RowTemplates.cpp
)

# Smart folders over the library store (built into lectern_core): fetching, counts, badges.
set(LECTERN_SMART_SOURCES
  src/smart/library/BookmarkPredicateObject.cpp
  src/smart/library/SmartFolderQuery.cpp
  src/smart/library/QKSmartFolderContents.cpp
  src/smart/library/SmartFolderLibrary.cpp
)
