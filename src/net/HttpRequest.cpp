#include "net/HttpRequest.h"

#include "net/Redaction.h"

namespace lectern {

std::string HttpRequest::description() const { return "<" + method + " " + redactedURL(url) + ">"; }

}  // namespace lectern
