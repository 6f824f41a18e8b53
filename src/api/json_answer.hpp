// JSON bodies, past the HTTP library's own compression.
//
// The library compresses every body whose Content-Type it takes for text, anew for each answer and
// for any client whose Accept-Encoding contains "br" or "gzip", "br;q=0" included: half a second of
// brotli for a 24-hour answer. It looks at the type before it hands the answer to the post-routing
// handler; so the type is put in there, and until then something stands in for it.
#pragma once

#include <string>

#include <httplib.h>

namespace spotserver {

// Makes `body` the body of the answer, to be sent as it is, apart from byte ranges, which the
// library cuts out; of an answer whose status says an error it cuts none. `body` is moved, not
// copied. The answer needs finishJson before it leaves.
void setJson(const httplib::Request& request, httplib::Response& response, std::string body);

// Makes the library send the whole body, whatever ranges of it the request asks for.
void dropRanges(const httplib::Request& request);

// To be called from the library's post-routing handler, with every answer: those of setJson get
// "Content-Type: application/json", others are left alone.
void finishJson(httplib::Response& response);

}  // namespace spotserver
