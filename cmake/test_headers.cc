// Empty. The target orvane_test_headers exists for its precompiled headers, but
// must have a source.
