# The feeds leaf: XML to the dictionary tree, feed documents to RSSFeed. No network, no store.
set(LECTERN_FEEDS_LEAF_SOURCES
  src/feeds/XmlNode.cpp
  src/feeds/XmlSaxParser.cpp
  src/feeds/XMLReader.cpp
  src/feeds/FeedStrings.cpp
  src/feeds/FeedURLSplit.cpp
  src/feeds/FeedDocumentParser.cpp
  src/feeds/RSSParser.cpp
  src/feeds/RSSFeedJson.cpp
)
