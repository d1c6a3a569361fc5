# The OAuth 1.0a signing leaf: text in, signatures out; it may use the toolkit only. URL parsing
# lives here because signing normalises URLs and the leaf cannot reach the HTTP layer.
set(LECTERN_OAUTH_SOURCES
  src/net/URL.cpp
  src/net/BrowserSignIn.cpp
  src/net/oauth/OAuthSigning.cpp
  src/net/oauth/OAuthNonceLedger.cpp
)

# The HTTP layer every service client is built on.
set(LECTERN_NET_SOURCES
  src/net/HttpHeaders.cpp
  src/net/HttpRequest.cpp
  src/net/HttpResponse.cpp
  src/net/Redaction.cpp
  src/net/Streams.cpp
  src/net/URLError.cpp
  src/net/TextEncoding.cpp
  src/net/DefaultHeaders.cpp
  src/net/AFQueryStringPair.cpp
  src/net/PropertyList.cpp
  src/net/Transport.cpp
  src/net/CurlTransport.cpp
  src/net/CannedTransport.cpp
  src/net/NetworkSession.cpp
  src/net/NetworkReachability.cpp
  src/net/AFURLConnectionOperation.cpp
  src/net/AFHTTPRequestOperation.cpp
  src/net/AFJSONRequestOperation.cpp
  src/net/AFXMLRequestOperation.cpp
  src/net/AFPropertyListRequestOperation.cpp
  src/net/AFImageRequestOperation.cpp
  src/net/AFHTTPBodyPart.cpp
  src/net/AFMultipartBodyStream.cpp
  src/net/AFStreamingMultipartFormData.cpp
  src/net/QKKindURLErrorMessage.cpp
  src/net/AFHTTPClient.cpp
  src/net/STLOAuthClient.cpp
  src/net/QKXAuthClient.cpp
)
