#pragma once

// The body of the desktop article page: a feed's HTML made safe to show.

#include <string>
#include <string_view>

#include "app/desktop/ArticleTemplate.h"

namespace lectern::desktop {

// `html` parsed with libxml2's recovering HTML parser and written back with only known-harmless
// markup: no scripts, styles, plug-ins, forms, event attributes or script URLs; YouTube and Vimeo
// iframes and stand-alone links become their players, other iframes links; images come from the
// cache when `images` finds them. `articleUrl` resolves relative addresses; when the body is empty
// and it is a video's address, the body is that video's player. Invalid UTF-8 is replaced first.
std::string sanitizeArticleBody(std::string_view html, std::string_view articleUrl,
                                const CachedImageLookup& images = {});

// The address with a scheme an article may link to (http, https, mailto) or a relative one, after
// the white space and control characters a browser ignores are taken out; nothing otherwise.
std::optional<std::string> safeLinkUrl(std::string_view url);

}  // namespace lectern::desktop
