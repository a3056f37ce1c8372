// Empty: the target orvane_test_headers is there for its precompiled headers, and
// must have a source.
