// Linked with a whole layer, to see that the layer needs nothing but what is below it.

int main() {}
