#include "api/activity_answer.hpp"

#include "api/activity_document.hpp"

namespace spotserver {
namespace {

// A body this short travels in one packet, compressed or not.
constexpr std::size_t kShort = 1000;

}  // namespace

std::string ActivityAnswer::document(double generated) const {
  const std::string head = documentHead(generated);
  std::string text;
  text.reserve(head.size() + tail().size());
  text += head;
  text += tail();
  return text;
}

std::optional<std::string> ActivityAnswer::gzippedDocument(double generated) const {
  if (tail().size() < kShort) return std::nullopt;
  deflated_.call([this] { deflated_tail_ = deflate_tail(tail_); });
  return gzip_file(documentHead(generated), deflated_tail_);
}

const std::string& ActivityAnswer::tail() const {
  written_.call([this] {
    tail_ = documentTail(snapshot_);
    snapshot_ = {};
  });
  return tail_;
}

}  // namespace spotserver
