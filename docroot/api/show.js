// Requests are tried with the token that "Authorize" is given; it is kept nowhere.
if (window.SwaggerUIBundle)
  SwaggerUIBundle({ dom_id: '#page', url: '/api/v1/openapi.json', validatorUrl: null, deepLinking: true, docExpansion: 'none', filter: true });
