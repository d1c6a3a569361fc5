#include "net/AFXMLRequestOperation.h"

namespace lectern {

AFXMLRequestOperation::AFXMLRequestOperation(NetworkSession& session, HttpRequest request)
    : AFHTTPRequestOperation(session, std::move(request)) {
  setAcceptableContentTypes(defaultAcceptableContentTypes());
}

XMLParserInput AFXMLRequestOperation::responseXMLParser() { return XMLParserInput{responseData()}; }

Result<ResponseObject> AFXMLRequestOperation::parseResponse() { return ResponseObject(responseXMLParser()); }

}  // namespace lectern
