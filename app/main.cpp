#include "app/front_end.h"
#include "app/process_setup.h"

int main(int argumentCount, char** arguments) {
  webreq::prepareProcess();
  return webreq::runCommandLine(argumentCount, arguments);
}
