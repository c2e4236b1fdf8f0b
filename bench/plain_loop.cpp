// The photo merge as the plainest loop would do it: one blocking statement after the other, every result whole in
// memory, the server's own settings. It is what the tool is compared with, so it sends the statements that the tool
// sends for photos that the live database lacks, in the same order:
//
//   kavophoto_plain_loop LIVE SOURCE

#include <libpq-fe.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "platform/text.h"

namespace {

struct Finish {
  void operator()(PGconn* connection) const { PQfinish(connection); }
};
using Connection = std::unique_ptr<PGconn, Finish>;

struct Clear {
  void operator()(PGresult* result) const { PQclear(result); }
};
using Result = std::unique_ptr<PGresult, Clear>;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "%s\n", what.c_str());
  std::exit(1);
}

Connection connectTo(const char* database) {
  const char* const keywords[] = {"user", "dbname", nullptr};
  const char* const values[] = {"postgres", database, nullptr};
  Connection connection(PQconnectdbParams(keywords, values, 0));
  if (PQstatus(connection.get()) != CONNECTION_OK) {
    fail(PQerrorMessage(connection.get()));
  }
  return connection;
}

Result execute(const Connection& connection, const std::string& statement) {
  Result result(PQexec(connection.get(), statement.c_str()));
  const ExecStatusType status = PQresultStatus(result.get());
  if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
    fail("[" + statement + "] " + PQerrorMessage(connection.get()));
  }
  return result;
}

void expectNone(const Connection& connection, const std::string& statement) {
  if (PQntuples(execute(connection, statement).get()) != 0) {
    fail("The live database is not empty: [" + statement + "] has a row.");
  }
}

std::string field(const Result& result, int row, const char* column) {
  return PQgetvalue(result.get(), row, PQfnumber(result.get(), column));
}

std::string escaped(const Connection& connection, const Result& result, int row, const char* column) {
  const std::string text = field(result, row, column);
  std::string copy(text.size() * 2 + 1, '\0');
  copy.resize(PQescapeStringConn(connection.get(), copy.data(), text.c_str(), text.size(), nullptr));
  return copy;
}

void insertImage(const Connection& live, const Result& images, int row, const std::string& path) {
  const auto text = [&](const char* column) { return "'" + escaped(live, images, row, column) + "', "; };
  const auto number = [&](const char* column) { return field(images, row, column) + ", "; };
  execute(live,
          "Insert into photo_image (path, name, title, description, album, size, camera_make, camera_model, exposure, "
          "aperture, resolutionx, resolutiony, iso, timetaken, updated, version, create_time, gps) VALUES('" +
              path + "', " + text("name") + text("title") + text("description") + text("album") + number("size") +
              text("camera_make") + text("camera_model") + text("exposure") + text("aperture") + number("resolutionx") +
              number("resolutiony") + number("iso") + text("timetaken") + "'1', " + number("version") +
              text("create_time") + "'" + escaped(live, images, row, "gps") + "')");
}

void mergeComments(const Connection& live, const Connection& source, const std::string& sourcePhoto,
                   const std::string& photo) {
  const Result comments = execute(source, "Select * from photo_comment where photo_id = " + sourcePhoto);
  for (int row = 0; row < PQntuples(comments.get()); ++row) {
    const std::string name = escaped(live, comments, row, "name");
    const std::string email = escaped(live, comments, row, "email");
    const std::string comment = escaped(live, comments, row, "comment");
    const std::string date = escaped(live, comments, row, "date");
    expectNone(live, formatText("Select * from photo_comment where photo_id = '%s' and date = '%s' and name = '%s'",
                                photo.c_str(), date.c_str(), name.c_str()));
    execute(live, formatText("Insert into photo_comment (photo_id, name, email, comment, date) Values ('%s', '%s', "
                             "'%s', '%s', '%s')",
                             photo.c_str(), name.c_str(), email.c_str(), comment.c_str(), date.c_str()));
  }
}

void mergeLabelLinks(const Connection& live, const Connection& source, const std::string& sourcePhoto,
                     const std::string& photo) {
  const Result links = execute(source,
                               "Select photo_image_label.info as info, status, name, category, "
                               "photo_image_label.info_new as info_new from photo_image_label left join photo_label on "
                               "photo_image_label.label_id = photo_label.id where image_id = " +
                                   sourcePhoto);
  for (int row = 0; row < PQntuples(links.get()); ++row) {
    const std::string name = escaped(live, links, row, "name");
    const std::string category = field(links, row, "category");
    expectNone(live, formatText("Select photo_image_label.id as id from photo_image_label left join photo_label on "
                                "photo_image_label.label_id = photo_label.id where image_id = %s and name = '%s' and "
                                "category = %s",
                                photo.c_str(), name.c_str(), category.c_str()));
    const Result label = execute(live, formatText("Select id from photo_label where name = '%s' and category = %s",
                                                  name.c_str(), category.c_str()));
    if (PQntuples(label.get()) == 0) {
      fail("The live database lacks the label " + name + ".");
    }
    execute(live,
            formatText("Insert into photo_image_label (image_id, label_id, info, info_new, status) Values (%s, %s, "
                       "'%s', '%s', '%s')",
                       photo.c_str(), field(label, 0, "id").c_str(), escaped(live, links, row, "info").c_str(),
                       escaped(live, links, row, "info_new").c_str(), field(links, row, "status").c_str()));
  }
}

void mergeImages(const Connection& live, const Connection& source) {
  const Result images = execute(source, "Select * from photo_image");
  for (int row = 0; row < PQntuples(images.get()); ++row) {
    struct stat status = {};
    if (stat(field(images, row, "path").c_str(), &status) != 0) {
      continue;
    }
    const std::string path = escaped(live, images, row, "path");
    const std::string findImage = "Select * from photo_image where path = '" + path + "'";
    expectNone(live, findImage);
    insertImage(live, images, row, path);
    const Result image = execute(live, findImage);
    if (PQntuples(image.get()) == 0) {
      fail("The photo " + path + " was not inserted.");
    }
    const std::string sourcePhoto = field(images, row, "id");
    const std::string photo = field(image, 0, "id");
    mergeComments(live, source, sourcePhoto, photo);
    mergeLabelLinks(live, source, sourcePhoto, photo);
  }
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 3) {
    std::fputs("Usage: kavophoto_plain_loop LIVE SOURCE\n", stderr);
    return 2;
  }
  const Connection live = connectTo(arguments[1]);
  const Connection source = connectTo(arguments[2]);
  mergeImages(live, source);
  return 0;
}
