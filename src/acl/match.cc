// How a rule is evaluated.
//
// Its conditions are walked in order, and each holds, does not hold, or cannot
// be decided (request criteria on data that are no request). A condition is
// satisfied when it holds, or when it does not and is negated; one that cannot be
// decided is never satisfied. The first satisfied condition makes the rule match,
// unless it is marked to go on: then the rule fails where such a condition is not
// satisfied and goes on where it is. A rule whose conditions run out, or that has
// none, does not match.
//
// At accept time there is no request. A condition on one then takes the result of
// the condition that was evaluated before it in the same call, whatever rule that
// stood in, and does not hold when there was none: intended, rules rely on it.
#include "acl/match.h"

#include <optional>

#include "httpmod/request.h"
#include "main/helpers.h"

namespace vrox::acl {

namespace {

enum class Result : std::int8_t { holds = 0, fails = 1, undecidable = -1 };

Result result_of(bool holds) { return holds ? Result::holds : Result::fails; }

// The rules under evaluation, innermost first. `include_module` in a circle
// comes back to one of them, which then does not match.
struct Frame {
  const Rule* rule;
  const Frame* outer;

  [[nodiscard]] bool holds(const Rule* wanted) const {
    for (const Frame* frame = this; frame != nullptr; frame = frame->outer) {
      if (frame->rule == wanted) return true;
    }
    return false;
  }
};

bool pattern_matches(const Condition& condition, std::string_view text) {
  regmatch_t range{.rm_so = 0, .rm_eo = static_cast<regoff_t>(text.size())};
  return regexec(condition.pattern, text.data() == nullptr ? "" : text.data(), 1, &range,
                 REG_STARTEND) == 0;
}

bool same_network(const Condition& condition, const Address& address) {
  return masked(address, condition.prefix) == condition.address;
}

Result address_result(const Condition& condition, const Subject& subject) {
  switch (condition.kind) {
    case ConditionKind::dst_ip:
      return result_of(same_network(condition, subject.destination));
    case ConditionKind::src_ip:
      return result_of(same_network(condition, subject.client));
    default:
      return result_of(condition.port_low <= subject.port && subject.port <= condition.port_high);
  }
}

bool needs_request(ConditionKind kind) { return kind < ConditionKind::dst_ip; }

// One call of a match function: what was found out about the request so far.
class Matcher {
 public:
  Matcher(const Subject& subject, bool has_request)
      : subject_(subject), has_request_(has_request) {}

  [[nodiscard]] bool matches(const Rule& rule, const Frame* outer = nullptr) {
    const Frame frame{&rule, outer};
    for (const Condition& condition : rule.conditions) {
      const Result result = evaluate(condition, frame);
      const Result wanted = result_of(!condition.negated);
      if (result == wanted && !condition.must_hold) return true;
      if (result != wanted && condition.must_hold) return false;
    }
    return false;
  }

 private:
  Result evaluate(const Condition& condition, const Frame& frame) {
    if (condition.kind == ConditionKind::include_module) {
      last_ = included_result(condition, frame);
    } else if (!needs_request(condition.kind)) {
      last_ = address_result(condition, subject_);
    } else if (has_request_) {
      last_ = request_result(condition);
    }
    return last_;
  }

  Result included_result(const Condition& condition, const Frame& frame) {
    const Rule* rule = condition.included;
    if (rule == nullptr || frame.holds(rule)) return Result::fails;
    Matcher alone(subject_, has_request_);  // a call of its own
    return result_of(alone.matches(*rule, &frame));
  }

  Result request_result(const Condition& condition) {
    switch (condition.kind) {
      case ConditionKind::reg_string:
        return result_of(pattern_matches(condition, subject_.request));
      case ConditionKind::method:
        return result_of((subject_.method & condition.methods) != 0);
      case ConditionKind::hdr_key:
        return is_http() ? header_result(condition) : server_name_result(condition);
      default:
        return target_result(condition);
    }
  }

  [[nodiscard]] bool is_http() const { return subject_.method != httpmod::not_http; }

  const std::optional<httpmod::RequestTarget>& target() {
    if (!parsed_) target_ = httpmod::parse_target(subject_.request);
    parsed_ = true;
    return target_;
  }

  Result target_result(const Condition& condition) {
    if (!is_http()) return Result::undecidable;
    if (!target()) return Result::holds;  // intended: a broken request is caught, not let through
    return result_of(pattern_matches(
        condition, condition.kind == ConditionKind::uri ? target()->uri : target()->url));
  }

  Result header_result(const Condition& condition) {
    if (!target()) return Result::fails;
    const std::string_view head = subject_.request.substr(0, target()->head_end);
    for (std::size_t feed = head.find('\n'); feed != std::string_view::npos;
         feed = head.find('\n', feed + 1)) {
      std::string_view line = head.substr(feed + 1);
      if (!starts_with_ignoring_case(line, condition.header_name)) continue;
      line.remove_prefix(condition.header_name.size());
      if (!line.starts_with(':')) continue;
      const std::string_view value = skip_whitespace(line.substr(1));
      if (pattern_matches(condition, value.substr(0, value.find('\r')))) return Result::holds;
    }
    return Result::fails;
  }

  Result server_name_result(const Condition& condition) {
    if (!equals_ignoring_case(condition.header_name, "Host")) return Result::undecidable;
    const std::string_view data = subject_.request;
    if (data.size() < 3 || data[1] != 3 || data[2] != 1) return Result::fails;
    if (!name_sought_) server_name_ = tls_server_name(data);
    name_sought_ = true;
    return result_of(!server_name_.empty() && pattern_matches(condition, server_name_));
  }

  const Subject& subject_;
  bool has_request_;
  Result last_ = Result::fails;
  bool parsed_ = false;
  std::optional<httpmod::RequestTarget> target_;
  bool name_sought_ = false;
  std::string_view server_name_;
};

}  // namespace

Rule* match_at_connect(const Subject& subject, Rule* list, int limit) {
  Matcher matcher(subject, false);
  for (Rule* rule = list; rule != nullptr && limit != 0; rule = rule->next, --limit) {
    if (matcher.matches(*rule)) return rule;
  }
  return nullptr;
}

Rule* match_on_request(const Subject& subject, Rule* list, int limit) {
  Matcher matcher(subject, true);
  for (Rule* rule = list; rule != nullptr && limit != 0; rule = rule->next, --limit) {
    if (rule->no_auto_match && !subject.has_upstream) continue;
    if (matcher.matches(*rule)) return rule;
  }
  return rule_lists.fallback;
}

Rule* rematch(const Subject& subject, const Rule& rule) {
  for (const RuleRef& listed : rule.rematch) {
    if (match_on_request(subject, listed.rule, 1) == listed.rule) return listed.rule;
  }
  return nullptr;
}

}  // namespace vrox::acl
