// The headers that nearly every test includes, compiled once, belong to this file.
