// Placeholder until the main loop lands.
int main() { return 0; }
