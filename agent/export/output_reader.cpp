#include "agent/export/output_reader.h"

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace vnagent {
namespace {

using nlohmann::json;

class OutputReader final : public json::json_sax_t {
 public:
  json take() { return std::move(root_); }

  bool null() override { return add(nullptr); }
  bool boolean(bool value) override { return add(value); }
  bool number_integer(int64_t value) override { return add(value); }
  bool number_unsigned(uint64_t value) override { return add(value); }
  bool number_float(double value, const std::string&) override { return add(value); }
  bool string(std::string& value) override { return add(std::move(value)); }
  bool binary(json::binary_t& value) override { return add(std::move(value)); }

  bool start_object(size_t) override {
    if (depthInList_ > 0) {
      ++depthInList_;
    } else {
      add(json::object());
      objects_.push_back(place_);
    }
    return true;
  }

  bool key(std::string& name) override {
    if (depthInList_ > 0) return true;
    // The members of the agent's documents are sorted.
    auto& members = objects_.back()->get_ref<json::object_t&>();
    place_ = &members.emplace_hint(members.end(), std::move(name), nullptr)->second;
    return true;
  }

  bool end_object() override {
    if (depthInList_ > 0) {
      --depthInList_;
    } else {
      objects_.pop_back();
    }
    return true;
  }

  bool start_array(size_t) override {
    add(true);
    ++depthInList_;
    return true;
  }

  bool end_array() override {
    --depthInList_;
    return true;
  }

  bool parse_error(size_t, const std::string&, const json::exception&) override {
    root_ = json(json::value_t::discarded);
    return false;
  }

 private:
  bool add(json value) {
    if (depthInList_ == 0) *place_ = std::move(value);
    return true;
  }

  json root_;
  json* place_ = &root_;        // of the next value
  std::vector<json*> objects_;  // that are open
  size_t depthInList_ = 0;
};

}  // namespace

json readOutput(std::string_view text) {
  OutputReader reader;
  json::sax_parse(text, &reader);
  return reader.take();
}

}  // namespace vnagent
