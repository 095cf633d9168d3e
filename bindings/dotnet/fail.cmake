# A test that stands for one that cannot run here, and says why.
message(FATAL_ERROR "${MESSAGE}")
