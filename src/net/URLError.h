#pragma once

#include <string>
#include <string_view>

#include "core/Error.h"

namespace lectern {

// Transport failures keep the URL-system domain and codes that service code and the user-facing
// messages key on.
inline constexpr std::string_view kURLErrorDomain = "NSURLErrorDomain";
// Validation failures of the HTTP layer (status, content type, undecodable body, multipart files).
inline constexpr std::string_view kAFNetworkingErrorDomain = "AFNetworkingErrorDomain";
// Where JSON and property-list parse errors come from.
inline constexpr std::string_view kCocoaErrorDomain = "NSCocoaErrorDomain";

// User-info keys.
inline constexpr std::string_view kFailingURLErrorKey = "NSErrorFailingURLKey";
inline constexpr std::string_view kFailingURLRequestErrorKey =
    "AFNetworkingOperationFailingURLRequestErrorKey";
inline constexpr std::string_view kFailingURLResponseErrorKey =
    "AFNetworkingOperationFailingURLResponseErrorKey";
inline constexpr std::string_view kFailureReasonErrorKey = "NSLocalizedFailureReason";
// The transport's own words for what went wrong, for logs.
inline constexpr std::string_view kDebugDescriptionErrorKey = "NSDebugDescription";

namespace URLErrorCode {
inline constexpr int kUnknown = -1;
inline constexpr int kCancelled = -999;
inline constexpr int kBadURL = -1000;
inline constexpr int kTimedOut = -1001;
inline constexpr int kUnsupportedURL = -1002;
inline constexpr int kCannotFindHost = -1003;
inline constexpr int kCannotConnectToHost = -1004;
inline constexpr int kNetworkConnectionLost = -1005;
inline constexpr int kDNSLookupFailed = -1006;
inline constexpr int kHTTPTooManyRedirects = -1007;
inline constexpr int kResourceUnavailable = -1008;
inline constexpr int kNotConnectedToInternet = -1009;
inline constexpr int kRedirectToNonExistentLocation = -1010;
inline constexpr int kBadServerResponse = -1011;
inline constexpr int kUserCancelledAuthentication = -1012;
inline constexpr int kUserAuthenticationRequired = -1013;
inline constexpr int kZeroByteResource = -1014;
inline constexpr int kCannotDecodeRawData = -1015;
inline constexpr int kCannotDecodeContentData = -1016;
inline constexpr int kCannotParseResponse = -1017;
inline constexpr int kRequestBodyStreamExhausted = -1021;
inline constexpr int kFileDoesNotExist = -1100;
inline constexpr int kDataLengthExceedsMaximum = -1103;
inline constexpr int kSecureConnectionFailed = -1200;
inline constexpr int kServerCertificateHasBadDate = -1201;
inline constexpr int kServerCertificateUntrusted = -1202;
inline constexpr int kServerCertificateHasUnknownRoot = -1203;
inline constexpr int kServerCertificateNotYetValid = -1204;
inline constexpr int kClientCertificateRejected = -1205;
inline constexpr int kClientCertificateRequired = -1206;
inline constexpr int kCannotCreateFile = -3000;
inline constexpr int kCannotOpenFile = -3001;
inline constexpr int kCannotWriteToFile = -3003;
}  // namespace URLErrorCode

// An error in the URL-system domain for `failingURL` (kept under kFailingURLErrorKey).
Error makeURLError(int code, std::string_view failingURL, std::string_view description,
                   std::string_view debugDescription = {});

}  // namespace lectern
