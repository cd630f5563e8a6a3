#include "app/startup.h"

int main(int argc, char** argv) {
  return cvn::run_app(argc, argv);
}
