// The session sidecar: the person and the protocol read back; damage costs
// only the part that is damaged, never the whole.
#include "engine/sidecar.h"

#include <gtest/gtest.h>

#include <tuple>

namespace cvn {
namespace {

TEST(Sidecar, PersonAndProtocolReadBack) {
  SessionSidecar s;
  s.rf = RfProtocol{{6, 5.5}, 90, 0.45};
  s.person = SessionPerson{"Anna\nBerg = 2", "F", 34, 5.5, 10.25};
  const SessionSidecar back = read_sidecar(sidecar_text(s));
  ASSERT_TRUE(back.rf && back.person) << sidecar_text(s);
  EXPECT_EQ(back.rf->rates, s.rf->rates);
  EXPECT_EQ(std::tie(back.person->name, back.person->sex, back.person->age, back.person->indur,
                     back.person->outdur),
            std::make_tuple("Anna Berg = 2", "F", 34, 5.5, 10.25));
  EXPECT_EQ(back.protocol_error, "");
}

TEST(Sidecar, DamageCostsOnlyWhatIsDamaged) {
  struct Case {
    std::string text;
    bool person;
    int age;
    double indur;
    bool rf, error;
  };
  const Case cases[] = {
      {"", false, -1, 0, false, false},
      {std::string("\0\xff\x01=\n=\n", 6), false, -1, 0, false, false},
      {"name=\nsex=M\n", false, -1, 0, false, false},               // nameless: nobody
      {"name=Ben\nage=abc\nindur=5\n", true, -1, 0, false, false},  // no outdur: no rhythm
      {"name=Ben\nage=151\nindur=-5\noutdur=11\n", true, -1, 0, false, false},
      {"name=Ben\nage=40\nindur=5\noutdur=11", true, 40, 5, false, false},  // torn last line
      {"protocol=rf\nrates=10\nname=Ben\n", true, -1, 0, false, true},
      {"protocol=slow\nname=Ben\n", true, -1, 0, false, true},
      {"protocol=rf\n", false, -1, 0, true, false},
  };
  for (const Case& c : cases) {
    const SessionSidecar s = read_sidecar(c.text);
    EXPECT_EQ(s.person.has_value(), c.person) << c.text;
    EXPECT_EQ(s.person ? s.person->age : -1, c.age) << c.text;
    EXPECT_EQ(s.person ? s.person->indur : 0, c.indur) << c.text;
    EXPECT_EQ(s.rf.has_value(), c.rf) << c.text;
    EXPECT_EQ(!s.protocol_error.empty(), c.error) << c.text;
  }
}

}  // namespace
}  // namespace cvn
