// fetch URL: the body of the answer on standard output. Exits with status 1 when the request fails.
import Foundation

/// Performs a GET. Returns its result, a status code or a failure code, and the body.
func request(_ url: String) throws -> (result: Int, body: Data) {
  let description = url.replacingOccurrences(of: "|", with: "%7C")  // a bar would begin the next field
  let process = Process()
  process.executableURL = URL(fileURLWithPath: "/usr/bin/env")
  process.arguments = ["webreq", "-web", description]
  let pipe = Pipe()
  process.standardOutput = pipe
  try process.run()
  let output = pipe.fileHandleForReading.readDataToEndOfFile()
  process.waitUntilExit()
  guard process.terminationStatus == 0, let lineEnd = output.firstIndex(of: 10),
    let line = String(data: output[..<lineEnd], encoding: .ascii), let result = Int(line)
  else { throw CocoaError(.fileReadCorruptFile) }
  return (result, Data(output[(lineEnd + 1)...].dropLast()))
}

guard CommandLine.arguments.count > 1 else {
  FileHandle.standardError.write(Data("usage: fetch URL\n".utf8))
  exit(2)
}
let (result, body) = try request(CommandLine.arguments[1])
guard 200...299 ~= result else {
  FileHandle.standardError.write(Data("fetch: the result is \(result)\n".utf8))
  exit(1)
}
FileHandle.standardOutput.write(body)
