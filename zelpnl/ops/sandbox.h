// zelpnl sandbox: a self-contained set-up in one folder, with every file and
// command of the panel's mail pointing into it: the panel's configuration
// and database (with the user "admin"), the mail back-end's own files (made
// by the back-end's SandboxWriter), and the responder's configuration,
// settings folder, memory, log and queue of answers.
#pragma once

#include <string>

#include "email/sandbox.h"
#include "mailstore/dovecot_sandbox.h"

namespace zelpnl {

class Host;

// The folder as an absolute path of characters that every file and command
// line of the set-up carries without quoting (the commands run through the
// shell, and the mail configuration quotes with ` and '). Throws Invalid.
std::string SandboxDir(const std::string& text);

struct SandboxSetUp {
  std::string dir;
  std::string config;          // the panel's configuration file
  std::string database;
  std::string log_file;
  std::string responder_conf;  // the responder's own configuration
  std::string answers;         // where the responder's answers are queued
  std::string admin;           // the panel user made
  std::string smart_host;      // where outbound mail goes
  email::SandboxPart mail;     // what the back-end made
  mailstore::DovecotSandbox store;  // the mail store
};

// Where the sandbox's mail stack sends outbound mail: "127.0.0.1:PORT" (an
// IP literal and a port; nothing asks DNS). Throws Invalid.
std::string SmartHost(const std::string& text);

struct SandboxOptions {
  std::string dir;         // from SandboxDir
  std::string smart_host;  // from SmartHost; "": a loopback port nothing listens on yet
};

// Makes the set-up, then opens host on it as every later run does. Refuses,
// before writing anything, a folder below one anyone may write to and a
// folder that holds any of the set-up's files. The stack's servers get
// loopback ports free at the time.
SandboxSetUp MakeSandbox(Host& host, const SandboxOptions& options);

}  // namespace zelpnl
