// The driver requests: envelope, record contents, and what each failure does.

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "daemon/iostat_ctx.h"
#include "daemon/kernel_requests.h"
#include "daemon/request_fake.h"
#include "zeroed_heap.h"

namespace {

TEST(KernelRequests, EnvelopeCarriesCodeSubcommandAndArgumentAddress) {
  request_fake driver;
  int marker = 0;
  void *seen = nullptr;
  driver.on(VOL_ACCUM_IOSTAT, [&](void *arg) {
    seen = arg;
    return 0;
  });
  EXPECT_EQ(0, vol_driver_request(VOL_ACCUM_IOSTAT, &marker));
  EXPECT_EQ(&marker, seen);
  EXPECT_EQ(0, driver.bad_envelopes());
  EXPECT_EQ((std::vector<int32_t>{VOL_ACCUM_IOSTAT}), driver.calls());
}

TEST(KernelRequests, StartSendsFlagOneAndReportsRefusal) {
  request_fake driver;
  vol_iostat_start_rec sent;
  std::memset(&sent, 0xAA, sizeof sent);
  driver.on(VOL_IOSTAT_WORKLOAD_START, [&](void *arg) {
    std::memcpy(&sent, arg, sizeof sent);
    return 0;
  });
  EXPECT_EQ(0, vol_iostat_workload_start());
  unsigned char expected[20] = {};
  uint32_t one = 1;
  std::memcpy(expected, &one, 4);
  EXPECT_EQ(0, std::memcmp(expected, &sent, 20));

  driver.on(VOL_IOSTAT_WORKLOAD_START, [](void *) {
    errno = EBUSY;
    return -1;
  });
  testing::internal::CaptureStderr();
  EXPECT_EQ(-1, vol_iostat_workload_start());
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(std::string::npos,
            err.find("ERROR Q-5-1-18532 VOL_IOSTAT_WORKLOAD_START failed with Device or resource "
                     "busy\n"));
}

TEST(KernelRequests, InfoCopiesTheWholeReplyOnlyOnSuccess) {
  request_fake driver;
  iostat_info reply;
  unsigned char pattern[40];
  for (int i = 0; i < 40; i++)
    pattern[i] = static_cast<unsigned char>(i + 1);
  std::memcpy(&reply, pattern, 40);
  driver.on(VOL_IOSTAT_INFO, [&](void *arg) {
    // The record arrives zeroed.
    unsigned char zero[40] = {};
    EXPECT_EQ(0, std::memcmp(zero, arg, 40));
    return info_answer(reply)(arg);
  });
  iostat_info got{};
  ASSERT_EQ(0, vol_iostat_info(&got));
  EXPECT_EQ(0, std::memcmp(pattern, &got, 40));

  driver.on(VOL_IOSTAT_INFO, [](void *arg) {
    std::memset(arg, 0xEE, 40); // a half-written reply must not leak out
    errno = EINVAL;
    return -1;
  });
  testing::internal::CaptureStderr();
  EXPECT_EQ(-1, vol_iostat_info(&got));
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(std::string::npos,
            err.find("ERROR Q-5-1-18530 VOL_IOSTAT_INFO failed with Invalid argument\n"));
  EXPECT_EQ(0, std::memcmp(pattern, &got, 40));
}

class UpdateRequest : public ::testing::Test {
protected:
  void SetUp() override {
    ctx->info.guid = vol_guid{0x0807060504030201ULL, 0x100F0E0D0C0B0A09ULL};
    ctx->wrkload.wl_count = 0x0102030405060708ULL;
    ctx->wrkload.threshold = 0xCAFE;
  }
  zeroed_ptr<iostat_ctx> ctx = make_zeroed<iostat_ctx>();
  request_fake driver;
};

TEST_F(UpdateRequest, CarriesTheCutAndTheGuidAtTheirOffsets) {
  struct flag_case {
    uint64_t drop_factor;
    uint32_t no_workload;
  };
  for (flag_case c : {flag_case{0, 1}, flag_case{2, 0}, flag_case{5, 0}}) {
    SCOPED_TRACE(c.drop_factor);
    ctx->wrkload.drop_factor = c.drop_factor;
    unsigned char sent[40];
    std::memset(sent, 0xAA, sizeof sent);
    driver.on(VOL_IOSTAT_UPDATE, [&](void *arg) {
      std::memcpy(sent, arg, 40);
      return 0;
    });
    vol_iostat_update(ctx.get(), 0);

    uint64_t wl_count;
    uint32_t threshold, reserved0, no_workload, reserved1;
    std::memcpy(&wl_count, sent + 0, 8);
    std::memcpy(&threshold, sent + 8, 4);
    std::memcpy(&reserved0, sent + 12, 4);
    std::memcpy(&no_workload, sent + 16, 4);
    std::memcpy(&reserved1, sent + 36, 4);
    EXPECT_EQ(0x0102030405060708ULL, wl_count);
    EXPECT_EQ(0xCAFEu, threshold);
    EXPECT_EQ(0u, reserved0);
    EXPECT_EQ(c.no_workload, no_workload);
    EXPECT_EQ(0, std::memcmp(sent + 20, &ctx->info.guid, 16));
    EXPECT_EQ(0u, reserved1);
  }
}

TEST_F(UpdateRequest, RefusalEndsTheProcessWithErrnoAsStatus) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  struct refusal {
    int err;
    int status;
    const char *text;
  };
  for (refusal r : {refusal{EPERM, 1, "Operation not permitted"},
                    refusal{ENOENT, 2, "No such file or directory"}}) {
    int e = r.err;
    driver.on(VOL_IOSTAT_UPDATE, [e](void *) {
      errno = e;
      return -1;
    });
    EXPECT_EXIT(vol_iostat_update(ctx.get(), 0), testing::ExitedWithCode(r.status),
                std::string("Q-5-1-18531 VOL_IOSTAT_UPDATE failed with ") + r.text);
  }
}

} // namespace
