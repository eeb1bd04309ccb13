// SPDX-License-Identifier: Apache-2.0
// Empty: the target that compiles the tests' common headers once needs a source.
