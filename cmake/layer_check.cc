// Linked with the objects of the lower daemon layers only: it builds when
// those layers take no symbol from a layer above them.
int main() { return 0; }
