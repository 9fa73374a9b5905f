/* The TDDL result codes the test driver libraries answer with. */
#pragma once

enum {
  kSuccess = 0,
  kFail = 0x1002,
  kAlreadyOpened = 0x1081,
  kAlreadyClosed = 0x1082,
  kInsufficientBuffer = 0x1083,
  kIoError = 0x1087
};
