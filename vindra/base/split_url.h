#pragma once

#include "vindra/base/export.h"

#include <string>

/// A URL cut into scheme, host, port and path, with a host that name resolution takes.
///
/// A plain value. Splitting never fails: a malformed URL gives odd fields. There is no
/// handling of user names, bracketed addresses, fragments or percent-escapes; the first ":" of
/// what follows the scheme, up to the path, always separates host and port.
class VINDRA_API split_url {
public:
    /// Splits `url`: absolute, beginning with "//" (taken as https), or a host and a port.
    explicit split_url(std::string const& url);

    /// `host` with each label that is not ASCII replaced by "xn--" and its Punycode. Labels are
    /// neither mapped to lower case nor normalised nor checked for length (RFC 5891 would).
    static std::string utf8_to_idn(std::string const& host);

    /// As written in the URL; "http" where there is none.
    std::string scheme;

    /// In ASCII. An origin-form URL ("/a/b") stands here as a whole.
    std::string host;

    /// The number behind the ":", 0 where there is no digit; without a ":" 443 for the scheme
    /// "https", 21 for "ftp" and 80 for all others.
    int port;

    /// From the first "/" behind the host on, query included; "/" where there is none.
    std::string path;
};
