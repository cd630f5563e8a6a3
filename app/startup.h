#pragma once
namespace cvn {
/// The program: prepare folders, bind, print the banner, serve forever.
int run_app(int argc, char** argv);
}  // namespace cvn
