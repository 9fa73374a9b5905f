// The test binaries reuse the gmock and gtest headers precompiled for this empty test program.
