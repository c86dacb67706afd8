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
