// Made for its precompiled header.
