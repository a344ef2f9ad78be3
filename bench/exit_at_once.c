// A program that costs what any program costs.
int main(void) {
  return 0;
}
