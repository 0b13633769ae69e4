// The headers that all tests include, compiled once; this file only gives them a home.
