#pragma once

#include "vindra/base/export.h"

#include <string>

/// A URL cut into scheme, host, port and path, with a host that name resolution takes.
///
/// Splitting never fails; a malformed URL gives odd fields. Does not handle user names, addresses
/// in brackets, fragments or percent-escapes. The first ":" between scheme and path always
/// separates host and port.
class VINDRA_API split_url {
public:
    /// Splits `url`: absolute, beginning with "//" (taken as https), or a host and a port.
    explicit split_url(std::string const& url);

    /// `host` with each label that is not ASCII replaced by "xn--" and its Punycode. Unlike RFC
    /// 5891, this does not map labels to lower case, normalise them or check their length.
    static std::string utf8_to_idn(std::string const& host);

    /// As written in the URL; "http" if there is none.
    std::string scheme;

    /// In ASCII. An origin-form URL ("/a/b") stands here as a whole.
    std::string host;

    /// The number behind the ":", or 0 if no digit follows. Without a ":" it is 443 for the scheme
    /// "https", 21 for "ftp" and 80 for all others.
    int port;

    /// From the first "/" behind the host on, with the query; "/" if there is none.
    std::string path;
};
