// zelpnl stack start|stop|status|reload: the sandbox's mail stack (stack.h)
// on the command line.
#include "commands.h"
#include "stack.h"

namespace zelpnl {

namespace {

nlohmann::ordered_json StackJson(const StackState& state) {
  nlohmann::ordered_json services = nlohmann::ordered_json::array();
  for (const ServiceState& s : state.services) {
    nlohmann::ordered_json listen = nlohmann::ordered_json::array();
    for (const ListenState& l : s.listen)
      listen.push_back({{"address", l.address}, {"accepting", l.accepting}});
    services.push_back({{"name", s.name},
                        {"running", s.pid != 0},
                        {"pid", s.pid == 0 ? nlohmann::ordered_json(nullptr)
                                           : nlohmann::ordered_json(s.pid)},
                        {"listen", listen},
                        {"log", s.log}});
  }
  nlohmann::ordered_json doc = {{"services", services}};
  if (state.queued >= 0) doc["queued"] = state.queued;
  return doc;
}

std::string StackText(const StackState& state) {
  std::vector<std::vector<std::string>> rows;
  for (const ServiceState& s : state.services) {
    std::vector<std::string> addresses;
    for (const ListenState& l : s.listen)
      addresses.push_back(l.address + (s.pid != 0 && !l.accepting ? " (not accepting)" : ""));
    rows.push_back({s.name, s.pid != 0 ? "running" : "stopped",
                    s.pid != 0 ? std::to_string(s.pid) : "-", JoinOrDash(addresses), s.log});
  }
  std::string text = Table({"SERVICE", "STATE", "PID", "LISTENS ON", "LOG"}, rows);
  if (state.queued >= 0) text += "queued messages: " + std::to_string(state.queued) + "\n";
  return text;
}

void Print(const Output& out, const StackState& state) {
  out.Print({{"stack", StackJson(state)}}, StackText(state));
}

}  // namespace

void AddStackCommands(CLI::App& app, Command* out) {
  CLI::App* stack = app.add_subcommand(
      "stack", "The sandbox's mail stack: its mail store (IMAP, LMTP) and its MTA's daemon");
  stack->require_subcommand(1);
  constexpr char kNotInBatch[] = "runs the sandbox's servers; run it on its own";

  stack->add_subcommand("start", "Start the stack's servers on their loopback ports")
      ->callback([=] {
        *out = {Needs::kConfig, [](Host&, const Output& o) { Print(o, StartStack()); }, kNotInBatch};
      });
  stack->add_subcommand("stop", "Stop the stack's servers; nothing of them keeps running")
      ->callback([=] {
        *out = {Needs::kConfig, [](Host&, const Output& o) { Print(o, StopStack()); }, kNotInBatch};
      });
  stack->add_subcommand("status", "Show the servers: pids, addresses, logs, and the MTA's queue")
      ->callback([=] {
        *out = {Needs::kConfig, [](Host&, const Output& o) { Print(o, StackStatus()); }};
      });
  auto only = std::make_shared<std::string>();
  CLI::App* reload = stack->add_subcommand(
      "reload", "Make the running servers read their configuration and tables anew (the MTA's "
                "restart command)");
  reload->add_option("SERVICE", *only, "Only this server");
  reload->callback([=] {
    const std::string name = *only;
    *out = {Needs::kConfig, [name](Host&, const Output& o) { Print(o, ReloadStack(name)); },
            kNotInBatch};
  });
}

}  // namespace zelpnl
