// Keeps the test-support library non-empty while it has no other sources.
namespace pellorin::testing {
void testSupportAnchor() {}
}  // namespace pellorin::testing
