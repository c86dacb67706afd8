// The text of the answers.
#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>

#include "zelresponder/reply.h"

using zelresponder::BuildReply;
using zelresponder::FormatDate;
using zelresponder::Message;
using zelresponder::NewMessageId;
using zelresponder::OriginalId;
using zelresponder::ReplyParts;
using zelresponder::ReplyReferences;
using zelresponder::ReplySubject;

namespace {

ReplyParts Parts(const std::string& text = "Away.\n", const std::string& subject = "") {
  ReplyParts parts;
  parts.from = "l@d.example";
  parts.to = "ann@x.example";
  parts.subject = subject;
  parts.text = text;
  parts.date = "Mon, 03 Mar 2025 09:15:02 +0000";
  parts.message_id = "<20250303091502.0123456789abcdef.responder@d.example>";
  return parts;
}

std::string Subject(const std::string& original_subject_line, const std::string& own = "") {
  return ReplySubject(Message::Parse(original_subject_line + "\n"), own);
}

}  // namespace

TEST(ReplyTest, AnAnswerHasEveryFieldInOrder) {
  const Message original = Message::Parse(
      "From ann@x.example Mon\nFrom: Ann <ann@x.example>\nTo: l@d.example\n"
      "Subject: Meeting\nMessage-ID: <m1@x.example>\n\nbody\n");
  EXPECT_EQ(BuildReply(original, Parts("Away until Monday.\nLou\n")),
            "From: l@d.example\n"
            "To: ann@x.example\n"
            "Subject: Re: Meeting\n"
            "Date: Mon, 03 Mar 2025 09:15:02 +0000\n"
            "Message-ID: <20250303091502.0123456789abcdef.responder@d.example>\n"
            "In-Reply-To: <m1@x.example>\n"
            "References: <m1@x.example>\n"
            "Auto-Submitted: auto-replied\n"
            "MIME-Version: 1.0\n"
            "Content-Type: text/plain; charset=UTF-8\n"
            "Content-Transfer-Encoding: 7bit\n"
            "\n"
            "Away until Monday.\n"
            "Lou\n");
}

TEST(ReplyTest, WithoutAMessageIdThereIsNoInReplyToNorReferences) {
  const Message original =
      Message::Parse("From: a@x.example\nSubject: s\nReferences: <r@x.example>\n\n");
  const std::string reply = BuildReply(original, Parts());
  EXPECT_EQ(reply.find("In-Reply-To"), std::string::npos);
  EXPECT_EQ(reply.find("References"), std::string::npos);
  EXPECT_EQ(OriginalId(Message::Parse("Message-ID: no-brackets@x.example\n\n")), "");
  EXPECT_EQ(OriginalId(Message::Parse("Message-ID: <with blank@x.example>\n\n")), "");
  EXPECT_EQ(OriginalId(Message::Parse("Message-Id: (c) <a@x.example> <b@x.example>\n\n")),
            "<a@x.example>");
}

TEST(ReplyTest, ReferencesFollowTheOriginalsThread) {
  EXPECT_EQ(ReplyReferences(Message::Parse(
                "Message-ID: <3@x>\nReferences: <1@x>\n <2@x> junk <bad id@x>\nIn-Reply-To: <9@x>\n\n")),
            "<1@x> <2@x> <3@x>");
  // No References: In-Reply-To with one identifier stands for them.
  EXPECT_EQ(ReplyReferences(Message::Parse("Message-ID: <3@x>\nIn-Reply-To: <2@x>\n\n")),
            "<2@x> <3@x>");
  EXPECT_EQ(ReplyReferences(Message::Parse("Message-ID: <3@x>\nIn-Reply-To: <1@x> <2@x>\n\n")),
            "<3@x>");
}

TEST(ReplyTest, LongReferencesKeepTheFirstAndTheLastNineteenFolded) {
  std::string refs;
  for (int i = 1; i <= 30; ++i) refs += " <ref" + std::to_string(i) + "@thread.example>";
  const std::string value =
      ReplyReferences(Message::Parse("Message-ID: <own@x.example>\nReferences:" + refs + "\n\n"));
  std::string expected_ids = "<ref1@thread.example>";
  for (int i = 13; i <= 30; ++i) expected_ids += " <ref" + std::to_string(i) + "@thread.example>";
  expected_ids += " <own@x.example>";
  std::string unfolded;
  for (size_t i = 0; i < value.size(); ++i) {
    if (value[i] == '\n') continue;
    unfolded += value[i];
  }
  EXPECT_EQ(unfolded, expected_ids);
  size_t start = 0;
  size_t line_length = std::string("References: ").size();
  while (start < value.size()) {
    size_t end = value.find('\n', start);
    if (end == std::string::npos) end = value.size();
    EXPECT_LE(line_length + end - start, 78u);
    line_length = 0;
    start = end + 1;
  }
  EXPECT_NE(value.find("\n <"), std::string::npos);
}

TEST(ReplyTest, SubjectIsReAndTheOriginalsUnlessTheResponderHasItsOwn) {
  EXPECT_EQ(Subject("Subject: Meeting"), "Re: Meeting");
  EXPECT_EQ(Subject("Subject: Meeting", "Out of office"), "Out of office");
  EXPECT_EQ(Subject("Subject: RE: Meeting"), "RE: Meeting");
  EXPECT_EQ(Subject("Subject: re:Meeting"), "re:Meeting");
  EXPECT_EQ(Subject("Subject: Regarding"), "Re: Regarding");
  EXPECT_EQ(Subject("To: l@d.example"), "Re: (no subject)");
  EXPECT_EQ(Subject("Subject:    "), "Re: (no subject)");
  EXPECT_EQ(Subject("Subject: =?UTF-8?Q?f=C3=BCr?= you"), "Re: =?UTF-8?Q?f=C3=BCr?= you");
}

TEST(ReplyTest, SubjectControlCharactersAreRemovedAndTabsBecomeBlanks) {
  EXPECT_EQ(ReplySubject(Message::Parse(std::string("Subject: a\tb\x01" "c\x7f" "d\r\n\n")), ""),
            "Re: a bcd");
}

TEST(ReplyTest, LongSubjectsAreCutAfterAWholeWordAndFolded) {
  std::string words;
  for (int i = 0; i < 60; ++i) words += "word" + std::to_string(i) + " ";
  const std::string value = Subject("Subject: " + words);
  std::string unfolded;
  for (char c : value)
    if (c != '\n') unfolded += c;
  EXPECT_EQ(unfolded.substr(0, 4), "Re: ");
  EXPECT_LE(unfolded.size(), 204u);
  EXPECT_EQ(words.substr(0, unfolded.size() - 4), unfolded.substr(4));
  EXPECT_EQ(words[unfolded.size() - 4], ' ');
  size_t start = 0, used = 9;
  while (start < value.size()) {
    size_t end = value.find('\n', start);
    if (end == std::string::npos) end = value.size();
    EXPECT_LE(used + end - start, 78u);
    used = 0;
    start = end + 1;
  }
  // One word longer than the limit is cut within it.
  EXPECT_EQ(Subject("Subject: " + std::string(300, 'x')), "Re: " + std::string(200, 'x'));
}

TEST(ReplyTest, NonAsciiSubjectsBecomeEncodedWordsWithoutSplittingCharacters) {
  // The responder's own subject: "Abwesend bis März, wirklich abwesend bis März".
  const std::string own = "Abwesend bis M\xc3\xa4rz, wirklich abwesend bis M\xc3\xa4rz";
  EXPECT_EQ(ReplySubject(Message::Parse("\n"), own),
            "=?UTF-8?B?QWJ3ZXNlbmQgYmlzIE3DpHJ6LCB3aXJrbGljaCBhYndlc2VuZCBiaXMgTcOk?=\n"
            " =?UTF-8?B?cno=?=");
  // 44 letters and an "ä" whose second byte would be the 46th: the word
  // ends before the "ä".
  EXPECT_EQ(ReplySubject(Message::Parse("\n"), std::string(44, 'a') + "\xc3\xa4" "b"),
            "=?UTF-8?B?YWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWE=?=\n"
            " =?UTF-8?B?w6Ri?=");
  // An original subject in raw UTF-8.
  EXPECT_EQ(ReplySubject(Message::Parse("Subject: F\xc3\xbcr dich\n\n"), ""),
            "=?UTF-8?B?UmU6IEbDvHIgZGljaA==?=");
}

TEST(ReplyTest, TextLineEndsBecomeLineFeedsAndTheTextEndsWithOne) {
  const Message original = Message::Parse("Subject: s\n\n");
  const std::string reply = BuildReply(original, Parts("one\r\ntwo\rthree"));
  EXPECT_EQ(reply.substr(reply.find("\n\n") + 2), "one\ntwo\nthree\n");
}

TEST(ReplyTest, EightBitTextIsSentAsIs) {
  const std::string reply = BuildReply(Message::Parse("\n"), Parts("Gr\xc3\xbc\xc3\x9f" "e\n"));
  EXPECT_NE(reply.find("Content-Transfer-Encoding: 8bit\n\nGr\xc3\xbc\xc3\x9f" "e\n"),
            std::string::npos);
}

TEST(ReplyTest, LinesLongerThanMailAllowsAreQuotedPrintable) {
  const std::string text = std::string(1000, 'a') + "\nx = 1 \n\xc3\xa4\n";
  const std::string reply = BuildReply(Message::Parse("\n"), Parts(text));
  const std::string body = reply.substr(reply.find("\n\n") + 2);
  EXPECT_NE(reply.find("Content-Transfer-Encoding: quoted-printable\n\n"), std::string::npos);
  std::string expected;
  for (int i = 0; i < 13; ++i) expected += std::string(75, 'a') + "=\n";
  expected += std::string(25, 'a') + "\n";
  expected += "x =3D 1=20\n=C3=A4\n";
  EXPECT_EQ(body, expected);
}

TEST(ReplyTest, DatesAreWrittenInLocalTimeWithTheirOffset) {
  ::setenv("TZ", "UTC", 1);
  ::tzset();
  EXPECT_EQ(FormatDate(1741000000), "Mon, 03 Mar 2025 11:06:40 +0000");
  ::setenv("TZ", "EST5", 1);
  ::tzset();
  EXPECT_EQ(FormatDate(1741000000), "Mon, 03 Mar 2025 06:06:40 -0500");
  ::setenv("TZ", "UTC", 1);
  ::tzset();
}

TEST(ReplyTest, MessageIdsAreNewEachTime) {
  const std::string a = NewMessageId(1741000000, "d.example");
  const std::string b = NewMessageId(1741000000, "d.example");
  EXPECT_TRUE(std::regex_match(a, std::regex("<20250303110640\\.[0-9a-f]{16}\\.responder@d\\.example>")))
      << a;
  EXPECT_NE(a, b);
}
