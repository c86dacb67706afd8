// zelpnl sandbox: a self-contained set-up in one folder, with every file and
// command of the panel's mail pointing into it: the panel's configuration
// and database (with the user "admin"), the mail back-end's own files (made
// by the back-end's SandboxWriter), and the responder's configuration,
// settings folder, memory, log and queue of answers.
#pragma once

#include <string>

#include "email/sandbox.h"

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
  email::SandboxPart mail;     // what the back-end made
};

// Makes the set-up in dir (from SandboxDir), then opens host on it as every
// later run does. Refuses, before writing anything, a folder below one
// anyone may write to and a folder that holds any of the set-up's files.
SandboxSetUp MakeSandbox(Host& host, const std::string& dir);

}  // namespace zelpnl
