// the headers are what is wanted
int main() {}
