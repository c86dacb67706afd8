// sendmail folds the keys of its maps to lower case and compares class w
// without case: a line an administrator wrote in other letters is the same
// key to the panel in every file, never one to add beside it (makemap
// refuses two keys that differ only in case).
#include "zelpnl_fixture.h"

using zeltest::ZelpnlTest;

TEST_F(ZelpnlTest, AKeyInOtherLettersIsTheSameKeyInEveryFile) {
  Ok({"webdomain", "add", "d.example", "--owner", "admin"});
  // What an earlier add of the domain left, in other letters: its lines are
  // taken over, not written a second time.
  WriteFile("local-host-names", "D.Example\n");
  WriteFile("virtusertable", "@D.Example\terror:nouser No such user here\n");
  Ok({"mail", "domain", "add", "d.example"});
  EXPECT_EQ(File("local-host-names"), "d.example\n");
  EXPECT_EQ(File("virtusertable"), "@D.Example\terror:nouser No such user here\n");

  WriteFile("virtusertable", File("virtusertable") + "Info@D.example\telsewhere@x.example\n");
  const zeltest::Result box = Zel({"mail", "box", "add", "info@d.example"});
  EXPECT_EQ(box.status, 1);
  EXPECT_EQ(box.err,
            "error: mailbox \"info@d.example\": the virtual user table has a line for it "
            "already, pointing to \"elsewhere@x.example\"; remove that line, or run \"zelpnl "
            "mail sync\" to take it over\n");
  EXPECT_EQ(Count("email"), 0);
}

// A mailbox an administrator wrote in other letters is read back in lower
// case and is the same object to every later command.
TEST_F(ZelpnlTest, AMailboxReadBackInOtherLettersIsOneObjectToEveryCommand) {
  MakeDomainWithMailbox();
  WriteFile("virtusertable", File("virtusertable") + "Orders@D.Example\torders+d.example\n");
  WriteFile("aliases", File("aliases") + "Orders+D.Example:\torders\\@d.example\n");
  Ok({"mail", "sync"});
  EXPECT_EQ(Rows("SELECT name FROM email ORDER BY name"), "l|orders");
  EXPECT_EQ(Zel({"mail", "box", "show", "orders@d.example"}).status, 0);
  Ok({"mail", "box", "suspend", "orders@d.example"});
  EXPECT_NE(File("virtusertable").find("Orders@D.Example\terror:nouser Account temporary disabled\n"),
            std::string::npos)
      << File("virtusertable");
  EXPECT_NE(File("aliases").find("Orders+D.Example:\torders@d.example\n"), std::string::npos)
      << File("aliases");
  Ok({"mail", "box", "resume", "orders@d.example"});
  EXPECT_NE(File("virtusertable").find("Orders@D.Example\torders+d.example\n"), std::string::npos);
  EXPECT_EQ(File("access"), "");
  Ok({"mail", "box", "delete", "orders@d.example"});
  EXPECT_EQ(File("virtusertable").find("rders"), std::string::npos) << File("virtusertable");
  EXPECT_EQ(File("aliases").find("rders"), std::string::npos) << File("aliases");
  EXPECT_EQ(Rows("SELECT name FROM email ORDER BY name"), "l");
}
