#include "nerva/platform/cpu/session_impl.h"

#include <functional>

#include "cpu_test_util.h"

namespace nerva::cpu::test {
namespace {

using SessionTest = CpuTest;

TEST_F(SessionTest, RefusesWhatTheHostCannotDo) {
  ISessionImpl& session = *session_.impl();
  int native = 0;
  long size = 16;
  struct Case {
    std::function<void()> call;
    const char* message;
  };
  const Case cases[] = {
      {[&] { session.WrapQueue(&native); }, "Cpu backend doesn't support WrapQueue."},
      {[&] { session.WrapBuffer(&native); }, "Cpu backend doesn't support WrapBuffer."},
      {[&] { session.EncodeCoef("MatMulCoef", size); }, "CPU not support CoefEncoder"},
      {[&] { session.MakeBuffer("MakeImage", size); }, "CPU not support Allocator: MakeImage"},
  };
  for (const Case& c : cases) EXPECT_THROW_MSG(c.call(), std::runtime_error, c.message);
}

TEST_F(SessionTest, GetInfoAnswersOnlyTheSupportedTypeQuery) {
  struct Case {
    int info;
    bool answer;
  };
  for (const Case& c : {Case{0, false}, Case{1, true}, Case{2, false}}) {
    int32_t param = kBFloat;
    unsigned long ret_size = 99;
    EXPECT_EQ(session_.GetInfo(static_cast<PlatformInfo>(c.info), sizeof(param), &param, &ret_size),
              c.answer)
        << c.info;
    EXPECT_EQ(param, kBFloat);
    EXPECT_EQ(ret_size, 99u);
  }
  EXPECT_TRUE(session_.SupportType(kFloat8_e5m2));
}

}  // namespace
}  // namespace nerva::cpu::test
