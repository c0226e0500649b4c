#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "webstatus/HttpMessage.h"

namespace guardian {

// Decides whom the pages obey. A browser sends requests on behalf of every page that it shows, and
// looks names up that strangers own, so neither its address nor its reach says who asks.
// Threads: immutable after construction.
class TRequestGuard {
 public:
  // ownNames: the machine's names; allowedNames: those that somebody allowed. The cookie's value is
  // what only this process knows.
  TRequestGuard(std::vector<std::string> ownNames, const std::vector<std::string>& allowedNames,
                std::string cookieValue);

  // For every page: the answer to a request for a name that is not this machine's, else nothing. A
  // stranger's name that he lets point here would make his page one of this site.
  [[nodiscard]] std::optional<THttpResponse> RefuseHost(const THttpRequest& request) const;

  // For a page that acts: the answer to a request that this site's own pages, a typed address or a
  // program did not make, else nothing.
  [[nodiscard]] std::optional<THttpResponse> RefuseAction(const THttpRequest& request) const;

  // The header line by which a browser gets the cookie.
  [[nodiscard]] std::string CookieHeader() const;

 private:
  [[nodiscard]] bool IsOwnName(std::string_view host) const;
  [[nodiscard]] bool HasCookie(const THttpRequest& request) const;

  std::vector<std::string> FNames;  // In lower case, without a last dot.
  std::string FCookie;              // "<name>=<value>".
};

// A guard for this machine: its host name, that with the domains of the resolver, what
// VELLUMARK_GUARDIAN_HOSTS lists, and a new random cookie. An entry that is no name is a printed
// line.
[[nodiscard]] TRequestGuard MakeRequestGuard();

}  // namespace guardian
