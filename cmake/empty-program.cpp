// Linked with a whole layer, to check that the layer needs only the layers below it.

int main() {}
