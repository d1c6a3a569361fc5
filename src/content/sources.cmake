set(LECTERN_CONTENT_SOURCES
  src/content/PageDecoder.cpp
  src/content/HtmlDocument.cpp
  src/content/ElementStats.cpp
  src/content/KeywordPattern.cpp
  src/content/QKContentCandidate.cpp
  src/content/QKContentCandidates.cpp
  src/content/QKContentParser.cpp
  src/content/QKContentParserAsync.cpp
)

# Extraction of pages fetched over the network: built into lectern_core.
set(LECTERN_CONTENT_NET_SOURCES
  src/content/ContentDownload.cpp
  src/content/QKContentParserAsyncURL.cpp
  src/content/BookmarkArticleDownload.cpp
)
