# The feeds leaf: XML to the dictionary tree, feed documents to RSSFeed. No network, no store.
set(LECTERN_FEEDS_LEAF_SOURCES
  src/feeds/XmlNode.cpp
  src/feeds/XmlSaxParser.cpp
  src/feeds/XMLReader.cpp
  src/feeds/XhtmlCapture.cpp
  src/feeds/FeedStrings.cpp
  src/feeds/FeedURLSplit.cpp
  src/feeds/FeedLinks.cpp
  src/feeds/FeedDocumentParser.cpp
  src/feeds/RSSParser.cpp
  src/feeds/RSSFeedJson.cpp
)

# Feed work that needs the network (and later the store): fetching, discovery, OPML. Built into
# lectern_core.
set(LECTERN_FEEDS_SOURCES
  src/feeds/URLDownload.cpp
  src/feeds/QKFeedParserClient.cpp
  src/feeds/RSSParserURL.cpp
  src/feeds/QKFeedLinkParser.cpp
  src/feeds/FeedDiscovery.cpp
  src/feeds/OPMLWriter.cpp
  src/feeds/OPMLViewController.cpp
)
