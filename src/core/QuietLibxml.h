#pragma once

// Header only: included by the parts that link libxml2 (feeds, content); core itself does not.
#include <libxml/xmlerror.h>

namespace lectern {

// libxml2 prints parser, encoding and XPath complaints to stderr unless told otherwise; its
// handlers are per thread, so this silences the calling thread only, and puts back what the
// thread had before.
class QuietLibxml {
 public:
  QuietLibxml()
      : generic_(xmlGenericError),
        genericContext_(xmlGenericErrorContext),
        structured_(xmlStructuredError),
        structuredContext_(xmlStructuredErrorContext) {
    xmlSetGenericErrorFunc(nullptr, ignoreGenericError);
    xmlSetStructuredErrorFunc(nullptr, ignoreStructuredError);
  }
  ~QuietLibxml() {
    xmlSetGenericErrorFunc(genericContext_, generic_);
    xmlSetStructuredErrorFunc(structuredContext_, structured_);
  }
  QuietLibxml(const QuietLibxml&) = delete;
  QuietLibxml& operator=(const QuietLibxml&) = delete;

 private:
  static void ignoreGenericError(void*, const char*, ...) {}
  static void ignoreStructuredError(void*, xmlErrorPtr) {}

  xmlGenericErrorFunc generic_;
  void* genericContext_;
  xmlStructuredErrorFunc structured_;
  void* structuredContext_;
};

}  // namespace lectern
