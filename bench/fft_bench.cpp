// (being written)
int main(){}
