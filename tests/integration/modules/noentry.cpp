/// A library that is no module library: it has none of the entry points.
extern "C" int somethingElse();
extern "C" int somethingElse() { return 0; }
